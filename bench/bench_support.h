// Shared by the benchmarks: a reporter that keeps each benchmark's time so
// ratios against a baseline measured in the same run can be printed.
#ifndef VELORA_BENCH_BENCH_SUPPORT_H
#define VELORA_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <functional>
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

// ---- Interleaved measurement, for benchmarks that run their own rounds ----

// One measurement of a variant: wall time and this process's CPU time (user +
// system, all threads) in milliseconds, or any other pair the variant reports.
struct Sample {
  double wallMs = 0;
  double cpuMs = 0;
};

// Wall and process CPU time of `body`.
Sample measure(const std::function<void()>& body);

struct Variant {
  std::string name;
  std::function<Sample()> run;
};

// Runs every variant once unmeasured (first connections, pools and page
// faults are no part of a steady-state figure), then once per round, the
// order rotated each round so no variant always runs first on a noisy
// machine. Samples by variant name.
std::map<std::string, std::vector<Sample>> interleave(const std::vector<Variant>& variants,
                                                      int rounds);

double median(std::vector<double> values);
std::vector<double> wallOf(const std::vector<Sample>& samples);
std::vector<double> cpuOf(const std::vector<Sample>& samples);

// "load average: 0.52 0.61 0.70", for the record beside the figures.
std::string loadAverage();

// The value of `--rounds N` among the arguments, or `fallback`.
int roundsArg(int argc, char** argv, int fallback);

// Instructions executed (all threads) when `program` runs under callgrind
// with `arguments`; -1 when valgrind is missing or the run failed.
long long callgrindInstructions(const std::string& program,
                                const std::vector<std::string>& arguments);

}  // namespace velora_bench

#endif  // VELORA_BENCH_BENCH_SUPPORT_H
