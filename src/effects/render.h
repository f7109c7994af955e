#pragma once

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

#include "core/parallel.h"
#include "effects/kernels/spatial.h"
#include "vorn/core/processing_status.h"
#include "vorn/effects/effect.h"
#include "vorn/effects/point_effect.h"
#include "vorn/io/image_metadata.h"

// The render contract shared by the effect bases: the cancel flag, row kernels, the setup of
// one call and the window a neighbourhood effect renders through.
namespace vorn::detail {

using ImageRGBf = _ImageData<PixelRGB<float>>;

/// The cancel flag of one call, polled between rows and between passes.
class RenderControl {
 public:
  explicit RenderControl(const bool* flag = nullptr) : flag_(flag) {}
  bool cancelled() const { return isCancelRequested(flag_); }
  /// Throws ImageProcessingStatus::cancelException when the flag is set.
  void checkpoint() const {
    if (cancelled()) throw ImageProcessingStatus::cancelException();
  }

 private:
  const bool* flag_;
};

/// Rows handed to a body between two looks at the cancel flag.
inline constexpr int kRowsBetweenChecks = 8;

/// Runs body(first, end) over rows [0, rows) in parallel, at most kRowsBetweenChecks rows per
/// call; after a cancel the remaining rows are skipped, and the cancellation is raised once
/// every worker has stopped (never from inside a worker).
template <typename Body>
void parallelRowsCancellable(int rows, const RenderControl& control, Body&& body) {
  parallelRows(rows, [&](int first, int end) {
    for (int y = first; y < end && !control.cancelled();) {
      const int stop = std::min(end, y + kRowsBetweenChecks);
      body(y, stop);
      y = stop;
    }
  });
  control.checkpoint();
}

template <typename Body>
class RowKernelOf final : public RowKernel {
 public:
  RowKernelOf(Body body, bool finite) : body_(std::move(body)), finite_(finite) {}
  void run(const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) const override {
    body_(in, out, count);
  }
  bool finiteOutput() const override { return finite_; }

 private:
  Body body_;
  bool finite_;
};

/// A kernel from body(const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count).
template <typename Body>
std::unique_ptr<RowKernel> rowKernel(Body body) {
  return std::make_unique<RowKernelOf<Body>>(std::move(body), false);
}

/// rowKernel for a body that never writes NaN or Inf, whatever it reads.
template <typename Body>
std::unique_ptr<RowKernel> finiteRowKernel(Body body) {
  return std::make_unique<RowKernelOf<Body>>(std::move(body), true);
}

/// A kernel from a per-pixel function PixelRGB<float>(const PixelRGB<float>&).
template <typename Function>
std::unique_ptr<RowKernel> pixelKernel(Function function) {
  return rowKernel([function](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) out[i] = function(in[i]);
  });
}

/// What an effect may know of the call it prepares for.
struct RenderSetup {
  /// Global measures (histograms, airlight) are taken from this part of this picture: the
  /// call's reference when it has one, else the source over the pixels the call may read.
  const ImageRGBf& statistics;
  _Rect<int> statisticsRect;
  /// Reference pixels to pixels of this render (see Effect::spatialScale).
  float spatialScale = 1.0f;
  RenderControl control;
  /// The whole picture in the source's pixel coordinates: effects placed on the frame (centre,
  /// gradient line, grain lattice) measure positions against it.
  _Rect<int> frame;
  /// What the photo being rendered says of itself (camera, as-shot white); null when the owner
  /// rendered pixels without a photo behind them.
  std::shared_ptr<const ImageMetadata> metadata;

  /// A size given in reference pixels, in pixels of this render (at least 1).
  int pixels(float referencePixels) const { return pixelsAt(referencePixels, spatialScale); }
};

/// The tail every render ends with: NaN becomes 0 and an infinity the largest finite value of
/// its sign, so that no effect hands a non-finite value to the next.
void makeFinite(float* values, std::size_t count);

/// A neighbourhood effect's view of one call: it reads `input` of the source (the output region
/// grown by its reach, clipped to the image) and writes `output` of the destination.
struct StencilWindow : RenderSetup {
  StencilWindow(const RenderSetup& setup, const ImageRGBf& sourceImage, ImageRGBf& destinationImage,
                _Rect<int> inputRect, _Rect<int> outputRect)
      : RenderSetup(setup),
        source(sourceImage),
        destination(destinationImage),
        input(inputRect),
        output(outputRect) {}

  const ImageRGBf& source;
  ImageRGBf& destination;
  _Rect<int> input;
  _Rect<int> output;

  /// Index of image pixel (x, y) in a plane of the input window's size.
  std::size_t windowIndex(int x, int y) const {
    return static_cast<std::size_t>(y - input.y) * static_cast<std::size_t>(input.width) +
           static_cast<std::size_t>(x - input.x);
  }
  /// body(in, out, index, count) for every output row, rows in parallel and cancellable: in and
  /// out point at the row's first output pixel, index is that pixel's place in window planes.
  /// Each row is made finite as soon as it is written.
  template <typename Body>
  void forOutputRows(Body&& body) const {
    const auto width = static_cast<std::size_t>(output.width);
    parallelRowsCancellable(output.height, control, [&](int first, int end) {
      for (int row = first; row < end; ++row) {
        const int y = output.y + row;
        PixelRGB<float>* out = destination.row(y) + output.x;
        body(source.row(y) + output.x, out, windowIndex(output.x, y), width);
        // Cleaned while the row is still in cache: this spares the render a pass over the frame.
        makeFinite(&out->r, 3 * width);
      }
    });
    finiteRows = true;
  }
  /// Set by forOutputRows, through which alone a render writes the destination: every output
  /// row is then finite and the base need not clean the frame again.
  mutable bool finiteRows = false;
};

/// The region a call renders: its roi (the whole image when all-zero) clipped to the source;
/// nullopt when nothing of it lies inside.
std::optional<_Rect<int>> renderRegion(const EffectCallContext& call);

/// True when the call has a non-empty source and a destination of its size; an empty
/// destination is first made with the source's size and profile.
bool prepareDestination(EffectCallContext& call);

/// Copies `region` of source into the same place of destination (nothing when they are one).
void copyRegion(const ImageRGBf& source, ImageRGBf& destination, _Rect<int> region);

/// The identity path of every effect: the call's region copied to the destination.
bool copySourceToDestination(EffectCallContext& call);

/// makeFinite for one value.
inline float finiteValue(float v) {
  return v != v ? 0.0f : std::max(std::min(v, FLT_MAX), -FLT_MAX);
}
/// The instruction sets makeFinite is written for.
enum class FiniteIsa { Sse2, Avx2, Avx512 };
/// makeFinite with the given kernel; false when the running CPU lacks its instructions.
bool makeFiniteWith(FiniteIsa isa, float* values, std::size_t count);

/// The setup of one call: statistics source, spatial scale and the cancel flag.
RenderSetup makeRenderSetup(const EffectCallContext& call, _Rect<int> readable, float spatialScale,
                            const EffectContext* context = nullptr);

}  // namespace vorn::detail
