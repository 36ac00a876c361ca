#include "bench_support.h"

#include <cstdio>

namespace velora_bench {

void RecordingReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    std::string name = run.benchmark_name();
    auto counter = run.counters.find("rate");
    if (counter != run.counters.end())
      rates_[name.substr(0, name.find('/'))] = counter->second;
  }
  ConsoleReporter::ReportRuns(runs);
}

double RecordingReporter::rate(const std::string& name) const {
  auto it = rates_.find(name);
  return it == rates_.end() ? 0 : it->second;
}

int runAndPrintRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
  benchmark::Initialize(&argc, argv);
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::printf("\n%-58s %10s %8s\n", "ratio (same run, higher is better)", "measured", "goal");
  for (const Ratio& ratio : ratios) {
    double baseline = reporter.rate(ratio.baseline);
    double value = baseline > 0 ? reporter.rate(ratio.measured) / baseline : 0;
    std::printf("%-58s %10.3f %8.2f\n", ratio.label.c_str(), value, ratio.goal);
  }
  return 0;
}

}  // namespace velora_bench
