#pragma once

#include <cstddef>
#include <vector>

// A smooth function of one variable tabulated once per render and read with linear
// interpolation, so pixel loops trade exp2/pow/sqrt for two loads and a mix.
namespace vorn::detail {

class SampledCurve {
 public:
  /// f sampled at steps + 1 evenly spaced points of [low, high]; outside it the end values hold.
  template <typename Function>
  SampledCurve(float low, float high, std::size_t steps, Function f)
      : low_(low),
        scale_(static_cast<float>(steps) / (high - low)),
        last_(static_cast<float>(steps)),
        steps_(static_cast<int>(steps)),
        values_(steps + 1) {
    for (std::size_t n = 0; n <= steps; ++n)
      values_[n] = f(low + (high - low) * static_cast<float>(n) / static_cast<float>(steps));
  }

  /// The curve's numbers by value, for pixel loops: a loop body that reads them through the
  /// curve may see them change with each float it stores, and stays scalar.
  struct Table {
    const float* values;
    float low;
    float scale;
    float last;
    int steps;

    /// The curve at x; NaN reads as the low end.
    float at(float x) const {
      float t = (x - low) * scale;
      // Written as selects so NaN lands on 0 and the loop around stays branch-free.
      t = t > 0.0f ? t : 0.0f;
      t = t < last ? t : last;
      // A signed conversion is one instruction; an unsigned one branches.
      int n = static_cast<int>(t);
      n = n < steps ? n : steps - 1;
      // Int indices: the vectoriser gathers only from a base plus an index.
      const float a = values[n];
      return a + (values[n + 1] - a) * (t - static_cast<float>(n));
    }
  };

  /// Valid while the curve lives.
  Table table() const { return {values_.data(), low_, scale_, last_, steps_}; }

  /// The curve at x; NaN reads as the low end.
  float at(float x) const { return table().at(x); }

 private:
  float low_;
  float scale_;
  float last_;
  int steps_;
  std::vector<float> values_;
};

}  // namespace vorn::detail
