// A 1 MiB page whose server answers after 300 ms (then sends 64 KiB every
// 10 ms), from the main frame's start to DidFinish, in one run:
//  - prefetched, and finished before the page asks;
//  - prefetched, and half-way through its body when the page asks;
//  - not prefetched: the network path.
// Each prefetched case is printed as a speed-up over the network path.
#include <thread>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"

namespace {

constexpr int kPageSize = 1 << 20;

velora_test::OriginServer& origin() {
  static velora_test::OriginServer* server = new velora_test::OriginServer();
  return *server;
}

std::string pageUrl(int n) {
  return origin().url("/delay?ms=300&chunk=65536&every=10&size=" + std::to_string(kPageSize) +
                      "&n=" + std::to_string(n));
}

// Loads the page in a fresh component bound to `prefetchId`; the time from
// start to finish.
double loadMs(const std::string& url, const std::string& prefetchId, int n) {
  velora_test::BoundPage page("bench" + std::to_string(n), prefetchId, url);
  arkweb_host::LoadOptions options(url);
  options.keepBody = false;
  arkweb_host::LoadResult result = page.load(options);
  if (result.bodySize != kPageSize)
    std::abort();
  return result.timing.finish - result.timing.start;
}

void run(benchmark::State& state, int waitMs, bool prefetch) {
  static int n = 0;
  double totalMs = 0;
  for (auto _ : state) {
    std::string url = pageUrl(++n);
    std::string id;
    if (prefetch) {
      auto request = std::make_shared<velora::PrefetchRequest>(url);
      request->setMethod("GET");
      id = velora::PrefetchNetwork::startPrefetch(request, nullptr);
      std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    }
    double ms = loadMs(url, id, n);
    state.SetIterationTime(ms / 1000.0);
    totalMs += ms;
  }
  state.counters["ms_to_finish"] = totalMs / state.iterations();
  state.counters["rate"] = benchmark::Counter(state.iterations() * 1000.0 / totalMs);
}

void BM_Page_NotPrefetched(benchmark::State& state) {
  run(state, 0, false);
}
// Body ends ~460 ms after the request; half-way ~380 ms.
void BM_Page_PrefetchedHalfway(benchmark::State& state) {
  run(state, 380, true);
}
void BM_Page_PrefetchedFinished(benchmark::State& state) {
  run(state, 700, true);
}

BENCHMARK(BM_Page_NotPrefetched)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Page_PrefetchedHalfway)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Page_PrefetchedFinished)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_WARN);
  return velora_bench::runAndPrintRatios(
      argc, argv,
      {{"1 MiB page, prefetched and finished: speed-up over network", "BM_Page_PrefetchedFinished",
        "BM_Page_NotPrefetched", 1.0},
       {"1 MiB page, prefetched half-way: speed-up over network", "BM_Page_PrefetchedHalfway",
        "BM_Page_NotPrefetched", 1.0}});
}
