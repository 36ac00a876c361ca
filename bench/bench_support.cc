#include "bench_support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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

namespace {

double cpuNowMs() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto ms = [](const timeval& t) { return t.tv_sec * 1000.0 + t.tv_usec / 1000.0; };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

double wallNowMs() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Sample measure(const std::function<void()>& body) {
  double wall = wallNowMs();
  double cpu = cpuNowMs();
  body();
  return Sample{wallNowMs() - wall, cpuNowMs() - cpu};
}

std::map<std::string, std::vector<Sample>> interleave(const std::vector<Variant>& variants,
                                                      int rounds) {
  std::map<std::string, std::vector<Sample>> samples;
  for (const Variant& variant : variants)
    variant.run();  // warm-up
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < variants.size(); ++i) {
      const Variant& variant = variants[(i + round) % variants.size()];
      samples[variant.name].push_back(variant.run());
    }
  }
  return samples;
}

double median(std::vector<double> values) {
  if (values.empty())
    return 0;
  std::sort(values.begin(), values.end());
  size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<double> wallOf(const std::vector<Sample>& samples) {
  std::vector<double> values;
  for (const Sample& sample : samples)
    values.push_back(sample.wallMs);
  return values;
}

std::vector<double> cpuOf(const std::vector<Sample>& samples) {
  std::vector<double> values;
  for (const Sample& sample : samples)
    values.push_back(sample.cpuMs);
  return values;
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  double one = 0, five = 0, fifteen = 0;
  in >> one >> five >> fifteen;
  char text[64];
  std::snprintf(text, sizeof(text), "load average: %.2f %.2f %.2f", one, five, fifteen);
  return text;
}

long long callgrindInstructions(const std::string& program,
                                const std::vector<std::string>& arguments) {
  char outFile[] = "/tmp/velora-callgrind-XXXXXX";
  int fd = mkstemp(outFile);
  if (fd < 0)
    return -1;
  close(fd);
  std::vector<std::string> command = {"valgrind", "--tool=callgrind",
                                      std::string("--callgrind-out-file=") + outFile, program};
  command.insert(command.end(), arguments.begin(), arguments.end());
  pid_t child = fork();
  if (child == 0) {
    std::vector<char*> argv;
    for (auto& part : command)
      argv.push_back(part.data());
    argv.push_back(nullptr);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    dup2(devnull, 2);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  long long total = -1;
  std::ifstream in(outFile);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("summary:", 0) == 0 || line.rfind("totals:", 0) == 0) {
      std::istringstream fields(line.substr(line.find(':') + 1));
      fields >> total;
    }
  }
  unlink(outFile);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? total : -1;
}

int roundsArg(int argc, char** argv, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--rounds") == 0)
      return std::atoi(argv[i + 1]);
  }
  return fallback;
}

}  // namespace velora_bench
