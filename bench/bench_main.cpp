// Runs every benchmark, then prints each operation beside the floor measured in the same
// iterations (timeAgainstFloor), so the figures are ratios that survive a noisy machine.
#include <benchmark/benchmark.h>

#include <cstdio>
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
      Row row{run.run_name.str(), run.report_label,
              run.GetAdjustedRealTime() * multiplier(run.time_unit), -1.0, -1.0};
      if (const auto floor = run.counters.find("floor_ms"); floor != run.counters.end())
        row.floorMs = floor->second.value;
      if (const auto ratio = run.counters.find("ratio"); ratio != run.counters.end())
        row.ratio = ratio->second.value;
      rows_.push_back(row);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-50s %12s  %-28s %12s %8s\n", "operation", "time", "floor, pool", "floor",
                "ratio");
    for (const Row& row : rows_) {
      char floor[32] = "-";
      char ratio[32] = "-";
      if (row.floorMs >= 0) std::snprintf(floor, sizeof floor, "%9.3f ms", row.floorMs);
      if (row.ratio >= 0) std::snprintf(ratio, sizeof ratio, "%.2f x", row.ratio);
      char time[32];
      if (row.seconds >= 1e-3) {
        std::snprintf(time, sizeof time, "%9.3f ms", row.seconds * 1e3);
      } else {
        std::snprintf(time, sizeof time, "%9.3f us", row.seconds * 1e6);
      }
      std::printf("%-50s %12s  %-28s %12s %8s\n", row.name.c_str(), time,
                  row.label.empty() ? "-" : row.label.c_str(), floor, ratio);
    }
  }

 private:
  struct Row {
    std::string name;
    std::string label;
    double seconds;
    double floorMs;
    double ratio;
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
