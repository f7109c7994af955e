// Runs every benchmark, then prints each operation beside the floor it names, measured in the
// same run, so the figures are ratios that survive a noisy machine.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // With repetitions, only the median stands for the benchmark.
      if (run.run_type == Run::RT_Iteration && run.repetitions > 1) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      const double seconds = run.GetAdjustedRealTime() * multiplier(run.time_unit);
      const std::string& label = run.report_label;
      if (label.rfind("floor:", 0) == 0) floors_[label.substr(6)] = seconds;
      rows_.push_back({run.run_name.str(), label, seconds});
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-52s %12s  %-22s %8s\n", "operation", "time", "floor", "ratio");
    for (const Row& row : rows_) {
      std::string floor = "-";
      std::string ratio = "-";
      if (row.label.rfind("vs:", 0) == 0) {
        floor = row.label.substr(3);
        const auto found = floors_.find(floor);
        if (found != floors_.end() && found->second > 0) {
          char text[32];
          std::snprintf(text, sizeof text, "%.2f x", row.seconds / found->second);
          ratio = text;
        }
      } else if (row.label.rfind("floor:", 0) == 0) {
        floor = "(floor " + row.label.substr(6) + ")";
      }
      std::printf("%-52s %9.3f ms  %-22s %8s\n", row.name.c_str(), row.seconds * 1e3, floor.c_str(),
                  ratio.c_str());
    }
  }

 private:
  struct Row {
    std::string name;
    std::string label;
    double seconds;
  };
  static double multiplier(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kNanosecond:
        return 1e-9;
      case benchmark::kMicrosecond:
        return 1e-6;
      case benchmark::kMillisecond:
        return 1e-3;
      default:
        return 1.0;
    }
  }
  std::map<std::string, double> floors_;
  std::vector<Row> rows_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
