// The offline-package path against its baselines, in one run:
//  - a 50 KiB resource, from the engine's start to DidFinish: answered from a
//    package vs. fetched from the local origin over loopback;
//  - a package hit (lookup, read, completion on the library's thread) vs. a
//    direct read of the same file.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "strata/strata_core.h"
#include "strata/host_config.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kResourceSize = 50 * 1024;

struct Fixture {
  velora_test::OriginServer origin;
  std::string dir = fs::temp_directory_path() / ("velora-bench-" + std::to_string(getpid()));
  std::string packagedUrl = origin.url("/packaged/resource.bin");
  std::string networkUrl = origin.url("/bytes/" + std::to_string(kResourceSize));
  std::string file;
  std::unique_ptr<velora_test::BoundPage> page;

  Fixture() {
    fs::create_directories(dir + "/source");
    StrataCore::usePackagesDir((dir + "/packages"));
    file = dir + "/source/resource.bin";
    std::ofstream(file, std::ios::binary) << velora_test::patternBytes(0, kResourceSize);
    nlohmann::json manifest = {{"id", "bench"},
                               {"version", "1"},
                               {"resources",
                                {{{"url", packagedUrl},
                                  {"file", "resource.bin"},
                                  {"headers", {{"Content-Type", "application/octet-stream"}}}}}}};
    std::ofstream(dir + "/source/manifest.json") << manifest.dump();
    std::string error;
    if (!StrataCore::PackageManager::install(dir + "/source", &error))
      std::abort();
    page = std::make_unique<velora_test::BoundPage>("bench");
  }
};

Fixture& fixture() {
  static Fixture* instance = new Fixture();
  return *instance;
}

void loadLatency(benchmark::State& state, const std::string& url) {
  double totalMs = 0;
  for (auto _ : state) {
    arkweb_host::LoadResult result = fixture().page->load(url);
    if (result.bodySize != kResourceSize)
      state.SkipWithError("bad load");
    totalMs += result.timing.finish - result.timing.start;
  }
  state.counters["ms_to_finish"] = totalMs / state.iterations();
  state.counters["rate"] = benchmark::Counter(state.iterations() * 1000.0 / totalMs);
}

void BM_Resource50K_FromOrigin(benchmark::State& state) {
  loadLatency(state, fixture().networkUrl);
}

void BM_Resource50K_FromPackage(benchmark::State& state) {
  loadLatency(state, fixture().packagedUrl);
}

void BM_DirectFileRead(benchmark::State& state) {
  for (auto _ : state) {
    std::string body(kResourceSize, '\0');
    int fd = open(fixture().file.c_str(), O_RDONLY);
    ssize_t n = read(fd, body.data(), body.size());
    close(fd);
    if (n != static_cast<ssize_t>(kResourceSize))
      state.SkipWithError("short read");
    benchmark::DoNotOptimize(body);
  }
  state.counters["rate"] = benchmark::Counter(state.iterations(), benchmark::Counter::kIsRate);
}

// From the call to the moment the completion holds the bytes, on the
// library's thread: where the module goes on to answer the page. The wait
// for the caller to wake up afterwards is not part of the package path.
void BM_PackageHit(benchmark::State& state) {
  StrataCore::ResourceRequest request(fixture().packagedUrl, {});
  for (auto _ : state) {
    std::promise<std::pair<size_t, std::chrono::steady_clock::time_point>> answer;
    auto start = std::chrono::steady_clock::now();
    StrataCore::Access::getResource(request, [&](std::unique_ptr<StrataCore::ResourceResponse> r) {
      answer.set_value({r->body.size(), std::chrono::steady_clock::now()});
    });
    auto [size, end] = answer.get_future().get();
    if (size != kResourceSize)
      state.SkipWithError("bad hit");
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  state.counters["rate"] = benchmark::Counter(state.iterations(), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_Resource50K_FromOrigin)->Iterations(300)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Resource50K_FromPackage)
    ->Iterations(300)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectFileRead)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PackageHit)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_WARN);
  int result = velora_bench::runAndPrintRatios(
      argc, argv,
      {{"50 KiB start->finish: package vs local origin (speed-up)", "BM_Resource50K_FromPackage",
        "BM_Resource50K_FromOrigin", 1.0},
       {"package hit vs direct read of the file (goal: within 2x)", "BM_PackageHit",
        "BM_DirectFileRead", 0.5}});
  fs::remove_all(fixture().dir);
  return result;
}
