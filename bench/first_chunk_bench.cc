// Server-rendered pages through the first-chunk cache, in one run with the
// variants interleaved:
//  - time from the load's start to the first body byte at the engine for a
//    page whose server renders for 400 ms: first visit (nothing stored) vs
//    second visit (stored chunk); the ratio is the speed-up;
//  - a 50 MiB live body spliced in after a stored chunk vs the same page with
//    the cache off (plain gateway): wall and process CPU ratios (higher is
//    better), and with --callgrind the instructions per MiB of each.
//
//   first_chunk_bench [--rounds N] [--callgrind]
#include <cstdio>
#include <cstring>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/first_chunk_storage.h"
#include "gantry_ssr/host_config.h"
#include "gantry_ssr/ssr_service.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "tern/singleton.h"

namespace {

using velora_bench::Sample;

void setFcc(bool on) {
  tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(on);
}

struct Bench {
  velora_test::OriginServer origin;
  velora_test::BoundPage page{"bench-ssr"};

  Bench() { gantry_ssr::setRules({origin.url("/fcc/")}); }

  std::string renderedPage() { return origin.url("/fcc/render?wait=400&delay=100&size=20000"); }
  std::string largePage(size_t size) {
    return origin.url("/fcc/large?delay=0&size=" + std::to_string(size));
  }

  arkweb_host::LoadResult load(const std::string& url) {
    arkweb_host::LoadOptions options(url);
    options.keepBody = false;
    arkweb_host::LoadResult result = page.load(options);
    if (result.error != 0 || result.status != 200) {
      std::fprintf(stderr, "load of %s failed: %d\n", url.c_str(), result.error);
      std::exit(1);
    }
    return result;
  }

  // Load start to the first body byte.
  Sample firstByte(bool stored) {
    setFcc(true);
    const std::string url = renderedPage();
    if (!stored)
      velora::FirstChunkStorage(url).remove();
    arkweb_host::LoadResult result = load(url);
    return Sample{result.timing.firstByte - result.timing.start, 0};
  }

  // The whole large page, with the stored chunk (spliced) or with the cache off.
  Sample wholePage(bool spliced, size_t size) {
    setFcc(spliced);
    const std::string url = largePage(size);
    uint64_t received = 0;
    Sample sample = velora_bench::measure([&] { received = load(url).bodySize; });
    if (received < size) {
      std::fprintf(stderr, "%s: %llu bytes of at least %zu\n", url.c_str(),
                   static_cast<unsigned long long>(received), size);
      std::exit(1);
    }
    return sample;
  }

  // A stored chunk for the large page, whatever its size (the key has no
  // query), and the origin's body of that size built.
  void warmLargePage(size_t size) {
    setFcc(true);
    load(largePage(size));
  }
};

constexpr size_t kLarge = 50u << 20;

// One load of the large page, for counting instructions: everything but the
// body's size is the same from one size to the next.
int runOne(const char* variant, size_t size) {
  Bench bench;
  bench.warmLargePage(1024);
  bench.wholePage(std::strcmp(variant, "spliced") == 0, size);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_ERROR);
  int rounds = 7;
  bool callgrind = false;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--rounds") && i + 1 < argc)
      rounds = std::atoi(argv[++i]);
    else if (!std::strcmp(argv[i], "--callgrind"))
      callgrind = true;
    else if (!std::strcmp(argv[i], "--only") && i + 2 < argc)  // used by --callgrind
      return runOne(argv[i + 1], std::strtoull(argv[i + 2], nullptr, 10));
  }

  Bench bench;
  std::printf("first_chunk_bench, %d rounds, %s\n", rounds, velora_bench::loadAverage().c_str());

  auto ttfb = velora_bench::interleave({{"first visit", [&] { return bench.firstByte(false); }},
                                        {"second visit", [&] { return bench.firstByte(true); }}},
                                       rounds);
  double first = velora_bench::median(velora_bench::wallOf(ttfb["first visit"]));
  double second = velora_bench::median(velora_bench::wallOf(ttfb["second visit"]));
  std::printf("\npage rendered in 400 ms, load start to first body byte (median ms)\n");
  std::printf("  first visit %10.3f\n  second visit %9.3f\n", first, second);
  std::printf("  speed-up %13.0fx   (goal >= 400x, i.e. < 1 ms from the stored chunk)\n",
              first / second);

  bench.warmLargePage(kLarge);
  auto large =
      velora_bench::interleave({{"spliced", [&] { return bench.wholePage(true, kLarge); }},
                                {"cache off", [&] { return bench.wholePage(false, kLarge); }}},
                               rounds * 4);
  double splicedWall = velora_bench::median(velora_bench::wallOf(large["spliced"]));
  double plainWall = velora_bench::median(velora_bench::wallOf(large["cache off"]));
  double splicedCpu = velora_bench::median(velora_bench::cpuOf(large["spliced"]));
  double plainCpu = velora_bench::median(velora_bench::cpuOf(large["cache off"]));
  std::printf("\n50 MiB live body, load start to finish (median of %d, ms, wall / process CPU)\n",
              rounds * 4);
  std::printf("  spliced after the stored chunk %8.1f / %8.1f\n", splicedWall, splicedCpu);
  std::printf("  cache off                      %8.1f / %8.1f\n", plainWall, plainCpu);
  std::printf("  throughput ratio, wall %.3f, CPU %.3f   (goal >= 0.95)\n", plainWall / splicedWall,
              plainCpu / splicedCpu);

  if (callgrind) {
    // Whole runs at two sizes: what does not grow with the body cancels out.
    const size_t small = 2u << 20, big = 6u << 20;
    std::printf("\ninstructions per MiB of live body (callgrind, %zu and %zu MiB)\n", small >> 20,
                big >> 20);
    for (const char* variant : {"spliced", "cache off"}) {
      const char* name = std::strcmp(variant, "spliced") == 0 ? "spliced" : "plain";
      long long a =
          velora_bench::callgrindInstructions(argv[0], {"--only", name, std::to_string(small)});
      long long b =
          velora_bench::callgrindInstructions(argv[0], {"--only", name, std::to_string(big)});
      if (a < 0 || b < 0)
        std::printf("  %-10s (callgrind run failed)\n", variant);
      else
        std::printf("  %-10s %12.0f\n", variant, static_cast<double>(b - a) / 4.0);
    }
  }
  return 0;
}
