// The request path against raw libcurl, in one run, variants interleaved in
// rotated order, the origin a native server in a process of its own (so the
// CPU time read here is the client's alone):
//  - bulk: one large body; engine -> Velora -> flume vs one libcurl easy
//    transfer with flume's options;
//  - small: many 1 KiB requests, 50 in flight; engine -> Velora -> flume vs a
//    libcurl multi handle with flume's options driven on one thread.
// Printed: medians of wall and process CPU time and their ratios (baseline /
// Velora: higher is better, 1.0 is parity); with --callgrind, instructions
// per MiB and per request from whole runs at two sizes.
//
//   request_path_bench [--rounds N] [--bulk-mib M] [--small N] [--callgrind]
#include <curl/curl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "fast_origin.h"
#include "hilog/log.h"

namespace {

using velora_bench::Sample;

constexpr int kInFlight = 50;
constexpr long kSmallSize = 1024;

// The origin, in a child process: "--serve-origin" prints the port and
// serves until its stdin closes.
int serveOrigin() {
  velora_bench::FastOrigin origin;
  std::printf("%d\n", origin.port());
  std::fflush(stdout);
  char byte;
  while (::read(0, &byte, 1) > 0) {
  }
  return 0;
}

class OriginProcess {
 public:
  explicit OriginProcess(const char* self) {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0)
      std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::execl(self, self, "--serve-origin", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    stdin_ = toChild[1];
    char text[32] = {0};
    if (::read(fromChild[0], text, sizeof text - 1) <= 0)
      std::abort();
    ::close(fromChild[0]);
    port_ = std::atoi(text);
  }
  ~OriginProcess() {
    ::close(stdin_);
    ::waitpid(pid_, nullptr, 0);
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int port_ = 0;
};

size_t discard(char*, size_t size, size_t count, void* received) {
  *static_cast<uint64_t*>(received) += size * count;
  return size * count;
}

size_t countHeader(char*, size_t size, size_t count, void* lines) {
  ++*static_cast<uint64_t*>(lines);
  return size * count;
}

// The options flume sets on its transfers: the same protocol choices,
// timeouts, error buffer and header callback (which here only counts lines:
// reading the fields is flume's work, and stays on its side of the ratio).
struct Baseline {
  uint64_t received = 0;
  uint64_t headerLines = 0;
  char error[CURL_ERROR_SIZE] = {0};
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  ~Baseline() { curl_slist_free_all(headers); }
};

void flumeOptions(CURL* easy, Baseline* baseline) {
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, baseline->error);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, 256L * 1024);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, 30000L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, 60L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, countHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &baseline->headerLines);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &baseline->received);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, baseline->headers);
  curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
}

void curlEasy(const std::string& url, uint64_t expected) {
  CURL* easy = curl_easy_init();
  Baseline baseline;
  flumeOptions(easy, &baseline);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  if (curl_easy_perform(easy) != CURLE_OK || baseline.received != expected)
    std::abort();
  curl_easy_cleanup(easy);
}

void curlMulti(const std::string& url, int count) {
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
  Baseline baseline;
  int started = 0, done = 0;
  auto start = [&] {
    CURL* easy = curl_easy_init();
    flumeOptions(easy, &baseline);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_multi_add_handle(multi, easy);
    ++started;
  };
  while (started < count && started < kInFlight)
    start();
  while (done < count) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE)
        continue;
      if (message->data.result != CURLE_OK)
        std::abort();
      curl_multi_remove_handle(multi, message->easy_handle);
      curl_easy_cleanup(message->easy_handle);
      ++done;
      if (started < count)
        start();
    }
    // Not once more after the last: that wait would be no transfer's.
    if (done < count)
      curl_multi_poll(multi, nullptr, 0, 100, nullptr);
  }
  curl_multi_cleanup(multi);
  if (baseline.received != static_cast<uint64_t>(count) * kSmallSize)
    std::abort();
}

void veloraBulk(velora_test::BoundPage& page, const std::string& url, uint64_t expected) {
  arkweb_host::LoadOptions options(url);
  options.keepBody = false;
  arkweb_host::LoadResult result = page.load(options);
  if (!result.intercepted || result.bodySize != expected)
    std::abort();
}

void veloraSmall(velora_test::BoundPage& page, const std::string& url, int count) {
  std::mutex mutex;
  std::condition_variable changed;
  int started = 0, done = 0;
  std::function<void()> start = [&] {
    arkweb_host::LoadOptions options(url);
    options.mainFrame = false;
    ++started;
    page.web().load(std::move(options), [&](arkweb_host::LoadResult result) {
      if (!result.intercepted || result.bodySize != kSmallSize)
        std::abort();
      std::lock_guard<std::mutex> lock(mutex);
      ++done;
      if (started < count)
        start();
      if (done == count)
        changed.notify_all();  // only then: the waiting thread is no part of the path
    });
  };
  {
    std::lock_guard<std::mutex> lock(mutex);
    while (started < count && started < kInFlight)
      start();
  }
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [&] { return done == count; });
}

struct Options {
  int rounds = 5;
  uint64_t bulkMiB = 200;
  int small = 5000;
  bool callgrind = false;
  std::string only;  // one variant, for callgrind
};

int runOnly(const char* self, const Options& options) {
  OriginProcess origin(self);
  velora_test::BoundPage page("bench");
  const uint64_t bulk = options.bulkMiB << 20;
  const std::string bulkUrl = origin.url("/bytes/" + std::to_string(bulk));
  const std::string smallUrl = origin.url("/bytes/" + std::to_string(kSmallSize));
  if (options.only == "bulk-curl")
    curlEasy(bulkUrl, bulk);
  else if (options.only == "bulk-velora")
    veloraBulk(page, bulkUrl, bulk);
  else if (options.only == "small-curl")
    curlMulti(smallUrl, options.small);
  else if (options.only == "small-velora")
    veloraSmall(page, smallUrl, options.small);
  else
    return 2;
  return 0;
}

void printPair(const char* what,
               const std::vector<Sample>& baseline,
               const std::vector<Sample>& velora,
               const char* baselineName) {
  double baseWall = velora_bench::median(velora_bench::wallOf(baseline));
  double baseCpu = velora_bench::median(velora_bench::cpuOf(baseline));
  double wall = velora_bench::median(velora_bench::wallOf(velora));
  double cpu = velora_bench::median(velora_bench::cpuOf(velora));
  std::printf("\n%s (median ms, wall / process CPU)\n", what);
  std::printf("  %-28s %9.1f / %9.1f\n", baselineName, baseWall, baseCpu);
  std::printf("  %-28s %9.1f / %9.1f\n", "engine -> Velora -> flume", wall, cpu);
  std::printf("  ratio %s / Velora: wall %.3f, CPU %.3f\n", baselineName, baseWall / wall,
              baseCpu / cpu);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--serve-origin")
      return serveOrigin();
    if (arg == "--rounds" && i + 1 < argc)
      options.rounds = std::atoi(argv[++i]);
    else if (arg == "--bulk-mib" && i + 1 < argc)
      options.bulkMiB = std::strtoull(argv[++i], nullptr, 10);
    else if (arg == "--small" && i + 1 < argc)
      options.small = std::atoi(argv[++i]);
    else if (arg == "--callgrind")
      options.callgrind = true;
    else if (arg == "--only" && i + 1 < argc)
      options.only = argv[++i];
  }
  OH_LOG_SetMinLogLevel(LOG_ERROR);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (!options.only.empty())
    return runOnly(argv[0], options);

  OriginProcess origin(argv[0]);
  velora_test::BoundPage page("bench");
  const uint64_t bulk = options.bulkMiB << 20;
  const std::string bulkUrl = origin.url("/bytes/" + std::to_string(bulk));
  const std::string smallUrl = origin.url("/bytes/" + std::to_string(kSmallSize));
  std::printf("request_path_bench: %d rounds, %llu MiB bulk, %d x 1 KiB small (%d in flight), %s\n",
              options.rounds, static_cast<unsigned long long>(options.bulkMiB), options.small,
              kInFlight, velora_bench::loadAverage().c_str());

  auto samples = velora_bench::interleave(
      {{"bulk-curl", [&] { return velora_bench::measure([&] { curlEasy(bulkUrl, bulk); }); }},
       {"bulk-velora",
        [&] { return velora_bench::measure([&] { veloraBulk(page, bulkUrl, bulk); }); }},
       {"small-curl",
        [&] { return velora_bench::measure([&] { curlMulti(smallUrl, options.small); }); }},
       {"small-velora",
        [&] {
          return velora_bench::measure([&] { veloraSmall(page, smallUrl, options.small); });
        }}},
      options.rounds);
  printPair("bulk body", samples["bulk-curl"], samples["bulk-velora"], "libcurl easy");
  printPair("small requests", samples["small-curl"], samples["small-velora"], "libcurl multi");

  if (options.callgrind) {
    std::printf("\ninstructions (callgrind, whole runs at two sizes, the difference)\n");
    auto count = [&](const char* variant, const char* flag, int a, int b, double units) {
      long long x = velora_bench::callgrindInstructions(
          argv[0], {"--only", variant, flag, std::to_string(a)});
      long long y = velora_bench::callgrindInstructions(
          argv[0], {"--only", variant, flag, std::to_string(b)});
      if (x < 0 || y < 0)
        std::printf("  %-14s (callgrind run failed)\n", variant);
      else
        std::printf("  %-14s %12.0f\n", variant, static_cast<double>(y - x) / units);
    };
    std::printf(" per MiB of body\n");
    count("bulk-curl", "--bulk-mib", 16, 48, 32);
    count("bulk-velora", "--bulk-mib", 16, 48, 32);
    std::printf(" per 1 KiB request\n");
    count("small-curl", "--small", 200, 600, 400);
    count("small-velora", "--small", 200, 600, 400);
  }
  return 0;
}
