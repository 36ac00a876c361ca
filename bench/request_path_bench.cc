// The request path against raw libcurl, in one run, variants interleaved in
// rotated order, the origin a native server in a process of its own (so the
// CPU time read here is the client's alone):
//  - bulk: one large body; engine -> Velora -> flume vs one libcurl easy
//    transfer with flume's options;
//  - small: many 1 KiB requests, 50 in flight; engine -> Velora -> flume vs a
//    libcurl multi handle with flume's options driven on one thread.
// Each over cleartext HTTP/1.1, then over HTTPS/2 and HTTPS/1.1 (a TLS origin
// that speaks HTTP/1.1 alone): certificates made for the run by the test
// suite's tests/origin/certs.js, Velora trusting the run's root through
// VELORA_CA_FILE, libcurl through CURLOPT_CAINFO, both with flume's TLS
// options. Over TLS libcurl keeps its handles and a share of TLS sessions
// from run to run, as flume keeps its own for the whole process, so that
// both sides' runs measure requests rather than connection set-up; the
// handshakes are counted apart.
// Printed: medians of wall and process CPU time and their ratios (baseline /
// Velora: higher is better, 1.0 is parity); the TLS handshakes the origin
// completed for each side, full and resumed; with --callgrind, instructions
// per MiB and per request from whole runs at two sizes.
//
//   request_path_bench [--rounds N] [--bulk-mib M] [--small N] [--callgrind]
//   request_path_bench --check     checks the origin alone (ctest runs it)
#include <curl/curl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>

#include "arkweb_host/web_component.h"
#include "bench_support.h"
#include "bound_page.h"
#include "fast_origin.h"
#include "hilog/log.h"

namespace {

using velora_bench::Handshakes;
using velora_bench::Sample;
using velora_bench::Wire;

constexpr int kInFlight = 50;
constexpr long kSmallSize = 1024;
constexpr Wire kWires[] = {Wire::kHttp, Wire::kHttpsH2, Wire::kHttpsH1};
constexpr Wire kTlsWires[] = {Wire::kHttpsH2, Wire::kHttpsH1};

// The run's certificates, made fresh into a temporary folder that goes at
// the end of the run.
class RunCertificates {
 public:
  RunCertificates() {
    char root[] = "/tmp/velora-bench-XXXXXX";
    if (!::mkdtemp(root))
      std::abort();
    root_ = root;
    const std::string command = "env -u LD_PRELOAD node '" VELORA_SOURCE_DIR
                                "/tests/origin/certs.js' '" +
                                dir() + "' >/dev/null";
    if (std::system(command.c_str()) != 0) {
      std::fprintf(stderr, "request_path_bench: could not make certificates (%s)\n",
                   command.c_str());
      std::abort();
    }
  }
  ~RunCertificates() { std::filesystem::remove_all(root_); }
  std::string dir() const { return root_ + "/certs"; }

 private:
  std::string root_;
};

// The origin, in a child process: "--serve-origin CERTS" prints its ports
// (cleartext, HTTPS/2, HTTPS/1.1) and serves until its stdin closes; each
// "h" read there is answered with a line of its handshake counts.
int serveOrigin(const std::string& certs) {
  velora_bench::FastOrigin origin(certs + "/leaf.pem", certs + "/leaf.key");
  std::printf("%d %d %d\n", origin.port(Wire::kHttp), origin.port(Wire::kHttpsH2),
              origin.port(Wire::kHttpsH1));
  std::fflush(stdout);
  char byte;
  while (::read(0, &byte, 1) > 0) {
    if (byte != 'h')
      continue;
    Handshakes h2 = origin.handshakes(Wire::kHttpsH2);
    Handshakes h1 = origin.handshakes(Wire::kHttpsH1);
    std::printf("%ld %ld %ld %ld\n", h2.full, h2.resumed, h1.full, h1.resumed);
    std::fflush(stdout);
  }
  return 0;
}

class OriginProcess {
 public:
  OriginProcess(const char* self, const std::string& certs) {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0)
      std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::execl(self, self, "--serve-origin", certs.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    stdin_ = toChild[1];
    stdout_ = ::fdopen(fromChild[0], "r");
    if (std::fscanf(stdout_, "%d %d %d", &ports_[0], &ports_[1], &ports_[2]) != 3)
      std::abort();
  }
  ~OriginProcess() {
    ::close(stdin_);
    std::fclose(stdout_);
    ::waitpid(pid_, nullptr, 0);
  }
  std::string url(Wire wire, const std::string& path) const {
    return velora_bench::originUrl(wire, ports_[static_cast<int>(wire)], path);
  }
  // The handshakes completed so far on a TLS wire's port.
  Handshakes handshakes(Wire wire) {
    Handshakes h2, h1;
    if (::write(stdin_, "h", 1) != 1 || std::fscanf(stdout_, "%ld %ld %ld %ld", &h2.full,
                                                    &h2.resumed, &h1.full, &h1.resumed) != 4) {
      std::abort();
    }
    return wire == Wire::kHttpsH2 ? h2 : h1;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  FILE* stdout_ = nullptr;
  int ports_[3] = {0, 0, 0};
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

// flume's TLS options, for https URLs: chain and name checked, TLS 1.2 at
// least, h2 offered by ALPN (CURL_HTTP_VERSION_2TLS, set for every URL),
// waiting for a first connection that may multiplex, TLS sessions shared for
// the whole run as flume shares them for the whole process. flume trusts
// the run's root beside the system's roots; libcurl here trusts it alone
// (CURLOPT_CAINFO), and so never loads the system's.
void tlsOptions(CURL* easy, const std::string& url) {
  if (url.compare(0, 8, "https://") != 0)
    return;
  static CURLSH* const share = [] {
    CURLSH* made = curl_share_init();
    curl_share_setopt(made, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(made, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    return made;
  }();
  curl_easy_setopt(easy, CURLOPT_SHARE, share);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  curl_easy_setopt(easy, CURLOPT_CAINFO, std::getenv("VELORA_CA_FILE"));
}

void flumeOptions(CURL* easy, Baseline* baseline, const std::string& url) {
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
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  tlsOptions(easy, url);
}

CURLM* newMulti() {
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
  return multi;
}

// The handles libcurl's side keeps for a TLS origin from run to run, as
// flume keeps its multi handle for the whole process: on both sides a run's
// requests find the connections of the runs before, and a run measures
// requests, not connection set-up (the handshakes are counted apart). The
// cleartext variants make new handles each run.
struct KeptHandles {
  CURL* easy = nullptr;    // the bulk body's
  CURLM* multi = nullptr;  // the small requests'
  ~KeptHandles() {
    curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
  }
};

void curlEasy(const std::string& url, uint64_t expected, KeptHandles* kept) {
  if (kept && !kept->easy)
    kept->easy = curl_easy_init();
  CURL* easy = kept ? kept->easy : curl_easy_init();
  Baseline baseline;
  flumeOptions(easy, &baseline, url);
  if (curl_easy_perform(easy) != CURLE_OK || baseline.received != expected) {
    std::fprintf(stderr, "libcurl: %s\n", baseline.error);
    std::abort();
  }
  if (!kept)
    curl_easy_cleanup(easy);
}

void curlMulti(const std::string& url, int count, KeptHandles* kept) {
  if (kept && !kept->multi)
    kept->multi = newMulti();
  CURLM* multi = kept ? kept->multi : newMulti();
  Baseline baseline;
  int started = 0, done = 0;
  auto start = [&] {
    CURL* easy = curl_easy_init();
    flumeOptions(easy, &baseline, url);
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
      if (message->data.result != CURLE_OK) {
        std::fprintf(stderr, "libcurl: %s\n", curl_easy_strerror(message->data.result));
        std::abort();
      }
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
  if (!kept)
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
  std::string only;   // one variant, for callgrind
  std::string certs;  // the run's certificates, made when not given
  bool check = false;
};

// "bulk-curl", "small-https2-velora", "bulk-https1-curl": what, wire, side.
std::string variantName(const std::string& what, Wire wire, bool velora) {
  static const char* const kInfix[] = {"", "-https2", "-https1"};
  return what + kInfix[static_cast<int>(wire)] + (velora ? "-velora" : "-curl");
}

// What one variant does: "bulk" or "small" over `wire`, on Velora's path or
// libcurl's, whose handles stay in `kept` when given.
std::function<void()> workOf(OriginProcess& origin,
                             velora_test::BoundPage& page,
                             const Options& options,
                             const std::string& what,
                             Wire wire,
                             bool velora,
                             KeptHandles* kept) {
  if (what == "bulk") {
    const uint64_t bulk = options.bulkMiB << 20;
    const std::string url = origin.url(wire, "/bytes/" + std::to_string(bulk));
    if (velora)
      return [&page, url, bulk] { veloraBulk(page, url, bulk); };
    return [url, bulk, kept] { curlEasy(url, bulk, kept); };
  }
  const std::string url = origin.url(wire, "/bytes/" + std::to_string(kSmallSize));
  const int count = options.small;
  if (velora)
    return [&page, url, count] { veloraSmall(page, url, count); };
  return [url, count, kept] { curlMulti(url, count, kept); };
}

int runOnly(const char* self, const Options& options) {
  OriginProcess origin(self, options.certs);
  velora_test::BoundPage page("bench");
  for (Wire wire : kWires) {
    for (const char* what : {"bulk", "small"}) {
      for (bool velora : {false, true}) {
        if (options.only == variantName(what, wire, velora)) {
          workOf(origin, page, options, what, wire, velora, nullptr)();
          return 0;
        }
      }
    }
  }
  return 2;
}

const char* wireTitle(Wire wire) {
  return wire == Wire::kHttp ? "" : wire == Wire::kHttpsH2 ? "HTTPS/2 " : "HTTPS/1.1 ";
}

const char* baselineName(const std::string& what) {
  return what == "bulk" ? "libcurl easy" : "libcurl multi";
}

void printPair(const std::string& what,
               const std::vector<Sample>& baseline,
               const std::vector<Sample>& velora,
               const char* baselineName) {
  double baseWall = velora_bench::median(velora_bench::wallOf(baseline));
  double baseCpu = velora_bench::median(velora_bench::cpuOf(baseline));
  double wall = velora_bench::median(velora_bench::wallOf(velora));
  double cpu = velora_bench::median(velora_bench::cpuOf(velora));
  std::printf("\n%s (median ms, wall / process CPU)\n", what.c_str());
  std::printf("  %-28s %9.1f / %9.1f\n", baselineName, baseWall, baseCpu);
  std::printf("  %-28s %9.1f / %9.1f\n", "engine -> Velora -> flume", wall, cpu);
  std::printf("  ratio %s / Velora: wall %.3f, CPU %.3f\n", baselineName, baseWall / wall,
              baseCpu / cpu);
}

// Handshakes of each TLS variant: in its first, unmeasured run (which makes
// the side's first connections and sessions), then in all its measured runs.
void printHandshakes(std::map<std::string, std::vector<Handshakes>>& made, int rounds) {
  std::printf(
      "\nTLS handshakes the origin completed, full + resumed: first (unmeasured) run | "
      "%d measured runs\n",
      rounds);
  Handshakes total[2];
  for (Wire wire : kTlsWires) {
    for (const char* what : {"bulk", "small"}) {
      for (bool velora : {false, true}) {
        const std::vector<Handshakes>& runs = made[variantName(what, wire, velora)];
        Handshakes later;
        for (size_t i = 1; i < runs.size(); ++i) {
          later.full += runs[i].full;
          later.resumed += runs[i].resumed;
        }
        const Handshakes first = runs.empty() ? Handshakes() : runs[0];
        total[velora].full += first.full + later.full;
        total[velora].resumed += first.resumed + later.resumed;
        std::printf("  %-10s %-6s %-28s %3ld + %-3ld | %3ld + %ld\n", wireTitle(wire), what,
                    velora ? "engine -> Velora -> flume" : baselineName(what), first.full,
                    first.resumed, later.full, later.resumed);
      }
    }
  }
  std::printf("  in all: libcurl %ld + %ld, Velora %ld + %ld\n", total[0].full, total[0].resumed,
              total[1].full, total[1].resumed);
}

// Body bytes checked against the pattern as they arrive.
struct CheckedBody {
  uint64_t size = 0;
  bool matches = true;
};

size_t checkBody(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<CheckedBody*>(user);
  for (size_t i = 0; i < size * count; ++i, ++body->size) {
    if (static_cast<unsigned char>(data[i]) != ((body->size * 31 + 7) & 255))
      body->matches = false;
  }
  return size * count;
}

// --check: over each wire the origin serves exact bodies (sizes about its
// 16 KiB records and 1 MiB pattern buffer), in the HTTP version that wire
// stands for, many at once, and counts a second connection's handshake as
// resumed. Run by ctest; prints what failed.
int checkOrigin(const char* self, const std::string& certs) {
  OriginProcess origin(self, certs);
  int failures = 0;
  auto expect = [&](bool ok, const std::string& what) {
    if (!ok) {
      std::printf("FAILED: %s\n", what.c_str());
      ++failures;
    }
  };
  const uint64_t sizes[] = {0, 1, 16383, 16384, 16385, (1 << 20) + 7, (3 << 20) + 5};
  for (Wire wire : kWires) {
    const std::string name = std::string(wireTitle(wire)) + "origin";
    CURL* first = curl_easy_init();  // one connection for every size
    for (uint64_t size : sizes) {
      const std::string url = origin.url(wire, "/bytes/" + std::to_string(size));
      Baseline baseline;
      CheckedBody body;
      flumeOptions(first, &baseline, url);
      curl_easy_setopt(first, CURLOPT_WRITEFUNCTION, checkBody);
      curl_easy_setopt(first, CURLOPT_WRITEDATA, &body);
      CURLcode result = curl_easy_perform(first);
      long status = 0, version = 0;
      curl_easy_getinfo(first, CURLINFO_RESPONSE_CODE, &status);
      curl_easy_getinfo(first, CURLINFO_HTTP_VERSION, &version);
      const std::string what = name + ", /bytes/" + std::to_string(size);
      expect(result == CURLE_OK && status == 200, what + ": " + baseline.error);
      expect(body.size == size && body.matches, what + ": the body differs from the pattern");
      expect(version == (wire == Wire::kHttpsH2 ? CURL_HTTP_VERSION_2_0 : CURL_HTTP_VERSION_1_1),
             what + ": HTTP version " + std::to_string(version));
    }
    if (wire != Wire::kHttp) {
      // A second connection while the first is open: its session resumes.
      const Handshakes before = origin.handshakes(wire);
      CURL* second = curl_easy_init();
      Baseline baseline;
      flumeOptions(second, &baseline, origin.url(wire, "/bytes/10"));
      curl_easy_setopt(second, CURLOPT_FRESH_CONNECT, 1L);
      expect(curl_easy_perform(second) == CURLE_OK, name + ", a second connection");
      const Handshakes after = origin.handshakes(wire);
      expect(before.full == 1 && before.resumed == 0, name + ": the first handshake is not full");
      expect(after.full == 1 && after.resumed == 1, name + ": the second handshake did not resume");
      curl_easy_cleanup(second);
    }
    curl_easy_cleanup(first);
    curlMulti(origin.url(wire, "/bytes/" + std::to_string(kSmallSize)), 500, nullptr);
  }
  std::printf("%s\n", failures ? "origin check failed" : "origin check passed");
  return failures ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--serve-origin" && i + 1 < argc)
      return serveOrigin(argv[i + 1]);
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
    else if (arg == "--certs" && i + 1 < argc)
      options.certs = argv[++i];
    else if (arg == "--check")
      options.check = true;
  }
  std::optional<RunCertificates> certificates;
  if (options.certs.empty()) {
    certificates.emplace();
    options.certs = certificates->dir();
  }
  // Before flume's first transfer: it reads this when its session is made.
  ::setenv("VELORA_CA_FILE", (options.certs + "/ca.pem").c_str(), 1);
  OH_LOG_SetMinLogLevel(LOG_ERROR);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (options.check)
    return checkOrigin(argv[0], options.certs);
  if (!options.only.empty())
    return runOnly(argv[0], options);

  OriginProcess origin(argv[0], options.certs);
  velora_test::BoundPage page("bench");
  std::printf("request_path_bench: %d rounds, %llu MiB bulk, %d x 1 KiB small (%d in flight), %s\n",
              options.rounds, static_cast<unsigned long long>(options.bulkMiB), options.small,
              kInFlight, velora_bench::loadAverage().c_str());

  KeptHandles kept[3];  // by wire; the cleartext one unused
  std::vector<velora_bench::Variant> variants;
  std::map<std::string, std::vector<Handshakes>> handshakes;
  for (Wire wire : kWires) {
    for (const char* what : {"bulk", "small"}) {
      for (bool velora : {false, true}) {
        const std::string name = variantName(what, wire, velora);
        std::function<void()> work =
            workOf(origin, page, options, what, wire, velora,
                   wire == Wire::kHttp ? nullptr : &kept[static_cast<int>(wire)]);
        variants.push_back({name, [&origin, &handshakes, name, wire, work] {
                              if (wire == Wire::kHttp)
                                return velora_bench::measure(work);
                              Handshakes before = origin.handshakes(wire);
                              Sample sample = velora_bench::measure(work);
                              Handshakes after = origin.handshakes(wire);
                              handshakes[name].push_back(
                                  {after.full - before.full, after.resumed - before.resumed});
                              return sample;
                            }});
      }
    }
  }
  auto samples = velora_bench::interleave(variants, options.rounds);
  for (Wire wire : kWires) {
    for (const char* what : {"bulk", "small"}) {
      printPair(std::string(wireTitle(wire)) +
                    (std::string(what) == "bulk" ? "bulk body" : "small requests"),
                samples[variantName(what, wire, false)], samples[variantName(what, wire, true)],
                baselineName(what));
    }
  }
  printHandshakes(handshakes, options.rounds);

  if (options.callgrind) {
    std::printf("\ninstructions (callgrind, whole runs at two sizes, the difference)\n");
    auto count = [&](const std::string& variant, const char* flag, int a, int b, double units) {
      long long x = velora_bench::callgrindInstructions(
          argv[0], {"--only", variant, flag, std::to_string(a), "--certs", options.certs});
      long long y = velora_bench::callgrindInstructions(
          argv[0], {"--only", variant, flag, std::to_string(b), "--certs", options.certs});
      if (x < 0 || y < 0)
        std::printf("  %-20s (callgrind run failed)\n", variant.c_str());
      else
        std::printf("  %-20s %12.0f\n", variant.c_str(), static_cast<double>(y - x) / units);
    };
    std::printf(" per MiB of body\n");
    for (Wire wire : kWires) {
      for (bool velora : {false, true})
        count(variantName("bulk", wire, velora), "--bulk-mib", 16, 48, 32);
    }
    std::printf(" per 1 KiB request\n");
    for (Wire wire : kWires) {
      for (bool velora : {false, true})
        count(variantName("small", wire, velora), "--small", 200, 2000, 1800);
    }
  }
  return 0;
}
