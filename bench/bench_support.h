// Shared by the benchmarks: a reporter that keeps each benchmark's time so
// ratios against a baseline measured in the same run can be printed.
#ifndef VELORA_BENCH_BENCH_SUPPORT_H
#define VELORA_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace velora_bench {

class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  // Items (or bytes) per second of the named benchmark's mean, 0 if absent.
  double rate(const std::string& name) const;

 private:
  std::map<std::string, double> rates_;
};

struct Ratio {
  std::string label;
  std::string measured;  // benchmark name
  std::string baseline;  // benchmark name
  double goal;           // the ratio we aim at or above
};

// Runs every registered benchmark, then prints one line per ratio.
int runAndPrintRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

}  // namespace velora_bench

#endif  // VELORA_BENCH_BENCH_SUPPORT_H
