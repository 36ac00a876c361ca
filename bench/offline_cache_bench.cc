// The offline-package path against its baselines, in one run:
//  - a 50 KiB resource, from the engine's start to DidFinish: answered from a
//    package vs. fetched from the local origin over loopback;
//  - a package hit (lookup, read, completion on the library's thread) vs. a
//    direct read of the same file;
//  - the same hit from archives of 20 and of 2,000 entries (stored, and
//    deflated) vs. the folder package holding the same 2,000 files.
// Variants are interleaved in rotated order over the rounds; medians.
//
//   offline_cache_bench [--rounds N]
#include <fcntl.h>
#include <unistd.h>
#include <zip.h>

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
constexpr int kLargePackage = 2000;
constexpr int kSmallPackage = 20;

// A package source: the 50 KiB resource and `entries` - 1 files of 1 KiB,
// each served at `base` + its name.
void writeSource(const std::string& folder,
                 const std::string& id,
                 const std::string& base,
                 int entries) {
  fs::create_directories(folder);
  std::ofstream(folder + "/resource.bin", std::ios::binary)
      << velora_test::patternBytes(0, kResourceSize);
  nlohmann::json resources = {{{"url", base + "resource.bin"},
                               {"file", "resource.bin"},
                               {"headers", {{"Content-Type", "application/octet-stream"}}}}};
  for (int i = 1; i < entries; ++i) {
    std::string name = "f" + std::to_string(i) + ".txt";
    std::ofstream(folder + "/" + name, std::ios::binary) << velora_test::patternBytes(i, 1024);
    resources.push_back({{"url", base + name}, {"file", name}});
  }
  std::ofstream(folder + "/manifest.json")
      << nlohmann::json({{"id", id}, {"version", "1"}, {"resources", resources}}).dump();
}

void zipFolder(const std::string& folder, const std::string& out, zip_int32_t method) {
  int error = 0;
  zip_t* archive = zip_open(out.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::string name = entry.path().filename().string();
    zip_int64_t index = zip_file_add(archive, name.c_str(),
                                     zip_source_file(archive, entry.path().c_str(), 0, -1), 0);
    zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), method, 0);
  }
  if (zip_close(archive) != 0)
    std::abort();
}

void install(const std::string& source) {
  std::string error;
  if (!StrataCore::PackageManager::install(source, &error)) {
    std::fprintf(stderr, "cannot install %s: %s\n", source.c_str(), error.c_str());
    std::abort();
  }
}

struct Fixture {
  velora_test::OriginServer origin;
  std::string dir = fs::temp_directory_path() / ("velora-bench-" + std::to_string(getpid()));
  std::string packagedUrl = origin.url("/packaged/resource.bin");
  std::string networkUrl = origin.url("/bytes/" + std::to_string(kResourceSize));
  std::string smallZipUrl = "https://small-zip.bench/resource.bin";
  std::string largeZipUrl = "https://large-zip.bench/resource.bin";
  std::string deflatedZipUrl = "https://deflated-zip.bench/resource.bin";
  std::string file;
  std::unique_ptr<velora_test::BoundPage> page;

  Fixture() {
    StrataCore::usePackagesDir((dir + "/packages"));
    writeSource(dir + "/source", "bench", origin.url("/packaged/"), kLargePackage);
    file = dir + "/source/resource.bin";
    install(dir + "/source");
    writeSource(dir + "/small", "small-zip", "https://small-zip.bench/", kSmallPackage);
    zipFolder(dir + "/small", dir + "/small.zip", ZIP_CM_STORE);
    install(dir + "/small.zip");
    writeSource(dir + "/large", "large-zip", "https://large-zip.bench/", kLargePackage);
    zipFolder(dir + "/large", dir + "/large.zip", ZIP_CM_STORE);
    install(dir + "/large.zip");
    writeSource(dir + "/deflated", "deflated-zip", "https://deflated-zip.bench/", kLargePackage);
    zipFolder(dir + "/deflated", dir + "/deflated.zip", ZIP_CM_DEFLATE);
    install(dir + "/deflated.zip");
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
Sample packageHits(int count,
                   std::chrono::microseconds pause = {},
                   const std::string& url = fixture().packagedUrl) {
  StrataCore::ResourceRequest request(url, {});
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

  // Archives against the folder holding the same files, hits back to back.
  auto zipped = velora_bench::interleave(
      {{"folder", [&] { return packageHits(kHits); }},
       {"small-zip", [&] { return packageHits(kHits, {}, fixture().smallZipUrl); }},
       {"large-zip", [&] { return packageHits(kHits, {}, fixture().largeZipUrl); }},
       {"deflated-zip", [&] { return packageHits(kHits, {}, fixture().deflatedZipUrl); }},
       {"read", [&] { return directReads(kHits); }}},
      rounds);
  using velora_bench::cpuOf;
  const double folderWall = median(wallOf(zipped["folder"])) / kHits;
  const double folderCpu = median(cpuOf(zipped["folder"])) / kHits;
  std::printf(
      "\n50 KiB hit from archives vs the folder package of the same 2,000 files "
      "(us per hit; ratios to the folder)\n");
  std::printf("  %-42s %8s %8s %8s %8s\n", "", "wall", "/folder", "CPU", "/folder");
  for (const auto& [name, label] : std::vector<std::pair<std::string, std::string>>{
           {"folder", "folder, 2,000 files"},
           {"small-zip", "zip, 20 entries, stored"},
           {"large-zip", "zip, 2,000 entries, stored (goal <= 1.3)"},
           {"deflated-zip", "zip, 2,000 entries, deflated"},
           {"read", "direct read of the file"}}) {
    const double wall = median(wallOf(zipped[name])) / kHits;
    const double cpu = median(cpuOf(zipped[name])) / kHits;
    std::printf("  %-42s %8.2f %8.2f %8.2f %8.2f\n", label.c_str(), wall * 1000, wall / folderWall,
                cpu * 1000, cpu / folderCpu);
  }
  std::printf("  2,000 entries / 20 entries: %.2fx\n",
              median(wallOf(zipped["large-zip"])) / median(wallOf(zipped["small-zip"])));

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
