// The offline-package path against its baselines, in one run:
//  - a 50 KiB resource, from the engine's start to DidFinish: answered from a
//    package vs. fetched from the local origin over loopback;
//  - a package hit (lookup, read, completion on the library's thread) vs. a
//    direct read of the same file.
// Variants are interleaved in rotated order over the rounds; medians.
//
//   offline_cache_bench [--rounds N]
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "strata/host_config.h"
#include "strata/strata_core.h"

namespace fs = std::filesystem;

namespace {

using velora_bench::Sample;

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

// Start to finish of `count` loads of `url`, summed; and the process's CPU.
Sample loads(const std::string& url, int count) {
  double totalMs = 0;
  Sample sample = velora_bench::measure([&] {
    for (int i = 0; i < count; ++i) {
      arkweb_host::LoadResult result = fixture().page->load(url);
      if (result.bodySize != kResourceSize)
        std::abort();
      totalMs += result.timing.finish - result.timing.start;
    }
  });
  sample.wallMs = totalMs;
  return sample;
}

Sample directReads(int count) {
  return velora_bench::measure([&] {
    for (int i = 0; i < count; ++i) {
      std::string body(kResourceSize, '\0');
      int fd = open(fixture().file.c_str(), O_RDONLY | O_CLOEXEC);
      ssize_t n = read(fd, body.data(), body.size());
      close(fd);
      if (n != static_cast<ssize_t>(kResourceSize))
        std::abort();
      benchmark::DoNotOptimize(body);
    }
  });
}

// From the call to the moment the completion holds the bytes, on the
// library's thread: where the module goes on to answer the page. The wait
// for the caller to wake up afterwards is not part of the package path.
// Back to back, as the resources of a page arrive; or each after `pause`,
// when the library's workers have gone to sleep.
Sample packageHits(int count, std::chrono::microseconds pause = {}) {
  StrataCore::ResourceRequest request(fixture().packagedUrl, {});
  double totalMs = 0;
  Sample sample = velora_bench::measure([&] {
    for (int i = 0; i < count; ++i) {
      if (pause.count() > 0)
        std::this_thread::sleep_for(pause);
      std::promise<std::pair<size_t, std::chrono::steady_clock::time_point>> answer;
      auto start = std::chrono::steady_clock::now();
      StrataCore::Access::getResource(
          request, [&](std::unique_ptr<StrataCore::ResourceResponse> r) {
            answer.set_value({r->body.size(), std::chrono::steady_clock::now()});
          });
      auto [size, end] = answer.get_future().get();
      if (size != kResourceSize)
        std::abort();
      totalMs += std::chrono::duration<double, std::milli>(end - start).count();
    }
  });
  sample.wallMs = totalMs;
  return sample;
}

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_WARN);
  const int rounds = velora_bench::roundsArg(argc, argv, 7);
  std::printf("offline_cache_bench, %d rounds, %s\n", rounds, velora_bench::loadAverage().c_str());
  using velora_bench::median;
  using velora_bench::wallOf;
  constexpr int kLoads = 50;
  auto pages =
      velora_bench::interleave({{"package", [&] { return loads(fixture().packagedUrl, kLoads); }},
                                {"origin", [&] { return loads(fixture().networkUrl, kLoads); }}},
                               rounds);
  double fromPackage = median(wallOf(pages["package"])) / kLoads;
  double fromOrigin = median(wallOf(pages["origin"])) / kLoads;
  std::printf("\n50 KiB resource, start to finish (median, us per load)\n");
  std::printf("  from the package %8.1f\n  from the origin  %8.1f   package %.1fx faster\n",
              fromPackage * 1000, fromOrigin * 1000, fromOrigin / fromPackage);

  constexpr int kHits = 500;
  auto hits = velora_bench::interleave(
      {{"hit", [&] { return packageHits(kHits); }}, {"read", [&] { return directReads(kHits); }}},
      rounds);
  double hit = median(wallOf(hits["hit"])) / kHits;
  double read = median(wallOf(hits["read"])) / kHits;
  std::printf(
      "\npackage hit (call to completion holding the bytes) vs a direct read of the file\n");
  std::printf("  hit  %6.2f us\n  read %6.2f us\n  hit / read %.2fx   (goal <= 2x)\n", hit * 1000,
              read * 1000, hit / read);

  // The first lookup after a pause wakes a sleeping worker.
  constexpr int kSpacedHits = 100;
  auto spaced = velora_bench::interleave(
      {{"hit", [&] { return packageHits(kSpacedHits, std::chrono::milliseconds(2)); }},
       {"read", [&] { return directReads(kSpacedHits); }}},
      rounds);
  double spacedHit = median(wallOf(spaced["hit"])) / kSpacedHits;
  double spacedRead = median(wallOf(spaced["read"])) / kSpacedHits;
  std::printf("\nthe same, each hit 2 ms after the last (the workers asleep)\n");
  std::printf("  hit  %6.2f us\n  read %6.2f us\n  hit / read %.2fx\n", spacedHit * 1000,
              spacedRead * 1000, spacedHit / spacedRead);
  fs::remove_all(fixture().dir);
  return 0;
}
