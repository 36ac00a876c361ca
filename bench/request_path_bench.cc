// The request path against raw libcurl, both fetching from the local origin
// in the same run:
//  - one 200 MiB body: engine -> Velora -> flume vs. a plain libcurl easy
//    transfer (throughput);
//  - 5,000 requests of 1 KiB with 50 in flight: engine -> Velora -> flume vs.
//    a plain libcurl multi handle (requests per second).
#include <curl/curl.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"

namespace {

constexpr size_t kLargeBody = size_t{200} << 20;
constexpr int kSmallRequests = 5000;
constexpr int kInFlight = 50;

velora_test::OriginServer& origin() {
  static velora_test::OriginServer* server = new velora_test::OriginServer();
  return *server;
}

arkweb_host::WebComponent& boundPage() {
  static velora_test::BoundPage* page = new velora_test::BoundPage("bench");
  return page->web();
}

size_t discard(char*, size_t size, size_t count, void* total) {
  *static_cast<size_t*>(total) += size * count;
  return size * count;
}

void BM_LargeBody_Velora(benchmark::State& state) {
  for (auto _ : state) {
    arkweb_host::LoadOptions options(origin().url("/bytes/" + std::to_string(kLargeBody)));
    options.keepBody = false;
    auto result = boundPage().loadAndWait(options);
    if (!result.intercepted || result.bodySize != kLargeBody)
      state.SkipWithError("bad load");
  }
  state.counters["rate"] = benchmark::Counter(static_cast<double>(kLargeBody) * state.iterations(),
                                              benchmark::Counter::kIsRate);
}

void BM_LargeBody_RawCurl(benchmark::State& state) {
  CURL* easy = curl_easy_init();
  for (auto _ : state) {
    size_t total = 0;
    std::string url = origin().url("/bytes/" + std::to_string(kLargeBody));
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &total);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, 256L * 1024);
    if (curl_easy_perform(easy) != CURLE_OK || total != kLargeBody)
      state.SkipWithError("bad load");
  }
  curl_easy_cleanup(easy);
  state.counters["rate"] = benchmark::Counter(static_cast<double>(kLargeBody) * state.iterations(),
                                              benchmark::Counter::kIsRate);
}

void BM_SmallRequests_Velora(benchmark::State& state) {
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable changed;
    int started = 0, done = 0, bad = 0;
    std::unique_lock<std::mutex> lock(mutex);
    while (done < kSmallRequests) {
      while (started < kSmallRequests && started - done < kInFlight) {
        ++started;
        lock.unlock();
        boundPage().load(origin().url("/bytes/1024"), [&](arkweb_host::LoadResult result) {
          std::lock_guard<std::mutex> guard(mutex);
          if (!result.intercepted || result.bodySize != 1024)
            ++bad;
          ++done;
          changed.notify_one();
        });
        lock.lock();
      }
      changed.wait(lock);
    }
    if (bad)
      state.SkipWithError("bad loads");
  }
  state.counters["rate"] =
      benchmark::Counter(double(kSmallRequests) * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_SmallRequests_RawCurl(benchmark::State& state) {
  CURLM* multi = curl_multi_init();
  std::string url = origin().url("/bytes/1024");
  for (auto _ : state) {
    int started = 0, done = 0, running = 0;
    std::vector<size_t> totals(kSmallRequests, 0);
    auto add = [&] {
      CURL* easy = curl_easy_init();
      curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &totals[started]);
      curl_multi_add_handle(multi, easy);
      ++started;
    };
    while (started < kInFlight)
      add();
    while (done < kSmallRequests) {
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE)
          continue;
        curl_multi_remove_handle(multi, message->easy_handle);
        curl_easy_cleanup(message->easy_handle);
        ++done;
        if (started < kSmallRequests)
          add();
      }
      curl_multi_poll(multi, nullptr, 0, 100, nullptr);
    }
  }
  curl_multi_cleanup(multi);
  state.counters["rate"] =
      benchmark::Counter(double(kSmallRequests) * state.iterations(), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_LargeBody_RawCurl)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_LargeBody_Velora)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_SmallRequests_RawCurl)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_SmallRequests_Velora)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  OH_LOG_SetMinLogLevel(LOG_WARN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  return velora_bench::runAndPrintRatios(
      argc, argv,
      {{"200 MiB body: Velora vs raw libcurl (throughput)", "BM_LargeBody_Velora",
        "BM_LargeBody_RawCurl", 0.9},
       {"5,000 x 1 KiB at 50 in flight: Velora vs raw libcurl (req/s)", "BM_SmallRequests_Velora",
        "BM_SmallRequests_RawCurl", 0.8}});
}
