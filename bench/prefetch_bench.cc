// Prefetch, in one run with the variants interleaved:
//  - a 1 MiB page whose server answers after 300 ms (then sends 64 KiB every
//    10 ms), main frame start to DidFinish: not prefetched (the network
//    path), prefetched and finished before the page asks, prefetched and
//    half-way when it asks; the prefetched cases as speed-ups;
//  - the replay of a finished 1 MiB recording (64 pieces of 16 KiB) into a
//    consumer that copies what it gets, against a memcpy of the same pieces
//    into the same buffer: wall and process CPU ratios (goal <= 1.5x).
//
//   prefetch_bench [--rounds N]
#include <cstdio>
#include <cstring>
#include <thread>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"
#include "prefetch/prefetch_request_cache.h"

namespace {

using velora_bench::Sample;

constexpr int kPageSize = 1 << 20;
constexpr size_t kPiece = 16 * 1024;
constexpr int kReplaysPerSample = 32;

struct PageBench {
  velora_test::OriginServer origin;
  int n = 0;

  // Start to finish of one load of a fresh URL; prefetched `leadMs` before
  // the page asks when `leadMs` >= 0.
  Sample load(int leadMs) {
    std::string url =
        origin.url("/delay?ms=300&chunk=65536&every=10&size=" + std::to_string(kPageSize) +
                   "&n=" + std::to_string(++n));
    std::string id;
    if (leadMs >= 0) {
      auto request = std::make_shared<velora::PrefetchRequest>(url);
      request->setMethod("GET");
      id = velora::PrefetchNetwork::startPrefetch(request, nullptr);
      std::this_thread::sleep_for(std::chrono::milliseconds(leadMs));
    }
    velora_test::BoundPage page("bench" + std::to_string(n), id, url);
    arkweb_host::LoadOptions options(url);
    options.keepBody = false;
    arkweb_host::LoadResult result = page.load(options);
    if (result.bodySize != kPageSize) {
      std::fprintf(stderr, "%s: %llu bytes\n", url.c_str(),
                   static_cast<unsigned long long>(result.bodySize));
      std::exit(1);
    }
    return Sample{result.timing.finish - result.timing.start, 0};
  }
};

// The consumer of a replay: takes each piece as the engine would, by copying.
class CopyingSink : public velora::NetRequestCallBack {
 public:
  explicit CopyingSink(std::vector<unsigned char>* out) : out_(out) {}
  void onResponse(int, const velora::HeaderMultimap&) override { at_ = 0; }
  void onData(const unsigned char* data, unsigned long length) override {
    std::memcpy(out_->data() + at_, data, length);
    at_ += length;
  }
  void onFinish() override {}
  void onError(int, ArkWeb_NetError, const std::string&) override {}
  size_t received() const { return at_; }

 private:
  std::vector<unsigned char>* out_;
  size_t at_ = 0;
};

struct ReplayBench {
  std::vector<unsigned char> body = std::vector<unsigned char>(kPageSize);
  std::vector<unsigned char> out = std::vector<unsigned char>(kPageSize);

  ReplayBench() {
    for (size_t i = 0; i < body.size(); ++i)
      body[i] = static_cast<unsigned char>(i * 31 + 7);
  }

  std::shared_ptr<velora::PrefetchRequestCache> recording() const {
    auto cache = std::make_shared<velora::PrefetchRequestCache>(
        std::make_shared<velora::PrefetchRequest>("https://bench.example/page"));
    cache->onResponse(200, {{"Content-Type", {"text/html"}}});
    for (size_t at = 0; at < body.size(); at += kPiece)
      cache->onData(body.data() + at, kPiece);
    cache->onFinish();
    return cache;
  }

  Sample replay() {
    std::vector<std::shared_ptr<velora::PrefetchRequestCache>> caches;
    for (int i = 0; i < kReplaysPerSample; ++i)
      caches.push_back(recording());
    auto sink = std::make_shared<CopyingSink>(&out);
    Sample sample = velora_bench::measure([&] {
      for (auto& cache : caches)
        cache->consume(sink);
    });
    if (sink->received() != body.size() || std::memcmp(out.data(), body.data(), body.size()) != 0)
      std::exit(1);
    return sample;
  }

  // The same pieces, held as the recording holds them, copied out.
  Sample memcpyPieces() {
    std::vector<std::vector<std::shared_ptr<unsigned char>>> copies(kReplaysPerSample);
    for (auto& pieces : copies) {
      for (size_t at = 0; at < body.size(); at += kPiece) {
        std::shared_ptr<unsigned char> piece(new unsigned char[kPiece],
                                             std::default_delete<unsigned char[]>());
        std::memcpy(piece.get(), body.data() + at, kPiece);
        pieces.push_back(std::move(piece));
      }
    }
    return velora_bench::measure([&] {
      for (auto& pieces : copies) {
        size_t at = 0;
        for (auto& piece : pieces) {
          std::memcpy(out.data() + at, piece.get(), kPiece);
          at += kPiece;
        }
      }
    });
  }
};

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_WARN);
  const int rounds = velora_bench::roundsArg(argc, argv, 5);
  std::printf("prefetch_bench, %d rounds, %s\n", rounds, velora_bench::loadAverage().c_str());
  using velora_bench::median;
  using velora_bench::wallOf;

  PageBench pages;
  // The body ends ~460 ms after the request; half-way ~380 ms.
  auto loads = velora_bench::interleave({{"network", [&] { return pages.load(-1); }},
                                         {"finished", [&] { return pages.load(700); }},
                                         {"half-way", [&] { return pages.load(380); }}},
                                        rounds);
  double network = median(wallOf(loads["network"]));
  double finished = median(wallOf(loads["finished"]));
  double halfway = median(wallOf(loads["half-way"]));
  std::printf("\n1 MiB page, main frame start to finish (median ms)\n");
  std::printf("  network %21.2f\n", network);
  std::printf("  prefetched, finished %8.2f   speed-up %.0fx\n", finished, network / finished);
  std::printf("  prefetched, half-way %8.2f   speed-up %.1fx\n", halfway, network / halfway);

  ReplayBench replays;
  auto copies = velora_bench::interleave({{"replay", [&] { return replays.replay(); }},
                                          {"memcpy", [&] { return replays.memcpyPieces(); }}},
                                         rounds * 4);
  double replayWall = median(wallOf(copies["replay"])) / kReplaysPerSample;
  double memcpyWall = median(wallOf(copies["memcpy"])) / kReplaysPerSample;
  double replayCpu = median(velora_bench::cpuOf(copies["replay"])) / kReplaysPerSample;
  double memcpyCpu = median(velora_bench::cpuOf(copies["memcpy"])) / kReplaysPerSample;
  std::printf(
      "\nfinished 1 MiB recording (64 pieces) replayed into a copying consumer, per replay\n");
  std::printf("  replay %8.1f us wall %8.1f us CPU\n", replayWall * 1000, replayCpu * 1000);
  std::printf("  memcpy %8.1f us wall %8.1f us CPU\n", memcpyWall * 1000, memcpyCpu * 1000);
  std::printf("  replay / memcpy: wall %.2fx, CPU %.2fx   (goal <= 1.5x)\n",
              replayWall / memcpyWall, replayCpu / memcpyCpu);
  return 0;
}
