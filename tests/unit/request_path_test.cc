// Pages loading through Velora: host engine -> scheme handler -> WebRequest
// -> flume -> local origin, and back.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <nlohmann/json.hpp>

#include "analytics/host_config.h"
#include "arkweb_host/web_component.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "intercept/intercept_manager.h"
#include "origin_server.h"
#include "scheme/page_binding.h"
#include "scheme/scheme_handler.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"
#include "transport_param.h"

using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using velora::InterceptManager;
using velora_test::BoundPage;
using velora_test::OriginServer;
using velora_test::patternBytes;

namespace {

std::vector<std::string> reasonsLogged(const tide::LogCapture& log) {
  std::vector<std::string> reasons;
  for (const auto& entry : log.find("ignoreIntercept", "Velora/web")) {
    reasons.push_back(entry["fields"]["reason"]);
  }
  return reasons;
}

class RequestPathOver : public velora_test::OverEachTransport {};

}  // namespace

TEST_P(RequestPathOver, BodiesOfEverySizeArriveByteExact) {
  BoundPage page("page");
  tide::LogCapture log;
  for (size_t size : {size_t{0}, size_t{1}, size_t{65536}, size_t{50} << 20}) {
    LoadResult result = page.load(origin.url("/bytes/" + std::to_string(size)));
    EXPECT_TRUE(result.intercepted);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.bodySize, size);
    EXPECT_TRUE(result.body == patternBytes(0, size)) << "body of " << size << " bytes differs";
  }
  // The entry follows the engine's DidFinish: wait for it.
  ASSERT_TRUE(velora_test::waitFor([&] { return log.find("finished").size() == 4; }));
  auto finished = log.find("finished", "Velora/Network");
  EXPECT_EQ(finished[3]["fields"]["dataSize"], 50u << 20);
  EXPECT_EQ(finished[3]["parentId"], "page");
  arkweb_host::waitIdle();
  EXPECT_TRUE(velora_test::waitFor([&] { return log.find("~WebRequest").size() == 4; }));
}

TEST_P(RequestPathOver, RepeatedHeadersReachTheEngineInOrder) {
  BoundPage page("page");
  LoadResult result = page.load(origin.url("/headers"));
  EXPECT_EQ(velora_test::headerValues(result.headers, "Set-Cookie"),
            (std::vector<std::string>{"a=1; Path=/", "b=2; Path=/", "c=3; Path=/"}));
  EXPECT_EQ(velora_test::headerValues(result.headers, "X-Multi"),
            (std::vector<std::string>{"first", "second"}));
}

TEST(RequestPath, ContentTypeSetsMimeAndCharsetOnlyWithTheSwitchOn) {
  OriginServer origin;
  BoundPage page("page");
  std::string typed = origin.url("/ctype?value=Text/HTML;%20Charset=UTF-8");
  LoadResult off = page.load(typed);
  EXPECT_EQ(off.mimeType, "");
  EXPECT_EQ(off.charset, "");
  EXPECT_EQ(velora_test::headerValues(off.headers, "Content-Type"),
            (std::vector<std::string>{"Text/HTML; Charset=UTF-8"}));

  InterceptManager::getInstance().setInterceptMimeType(true);
  LoadResult on = page.load(typed);
  EXPECT_EQ(on.mimeType, "text/html");
  EXPECT_EQ(on.charset, "utf-8");
  LoadResult charsetOnly = page.load(origin.url("/ctype?value=;charset=gbk"));
  EXPECT_EQ(charsetOnly.mimeType, "");
  EXPECT_EQ(charsetOnly.charset, "gbk");
}

TEST_P(RequestPathOver, UploadsArriveByteExactSizedAndChunked) {
  BoundPage page("page");
  tide::LogCapture log;
  for (bool chunked : {false, true}) {
    for (size_t size : {size_t{0}, size_t{4095}, size_t{4096}, size_t{10000}, size_t{20} << 20}) {
      LoadOptions upload(origin.url("/echo?raw=1"));
      upload.method = size % 2 ? "PUT" : "POST";
      upload.body = patternBytes(11, size);
      upload.chunked = chunked;
      log.clear();
      LoadResult result = page.load(upload);
      ASSERT_EQ(result.error, 0) << size;
      EXPECT_TRUE(result.body == *upload.body) << size << (chunked ? " chunked" : " sized");
      // One entry at init, then one per read of at most 4095 bytes; an
      // empty sized body is never read, as a read must ask for a byte.
      size_t reads = log.find("bodyReadCallback").size() - 1;
      if (!chunked && size == 0) {
        EXPECT_EQ(reads, 0u);
      }
      if (!chunked && size == 4095) {
        EXPECT_EQ(reads, 1u);
      }
      if (!chunked && size == 10000) {
        EXPECT_EQ(reads, 3u);
      }
    }
  }
}

TEST(RequestPath, AnUploadWhoseBodyCannotBeReadFailsThePage) {
  OriginServer origin;
  BoundPage page("page");
  tide::LogCapture log;
  // The stream cannot even start: the request never goes out.
  LoadOptions unreadable(origin.url("/echo"));
  unreadable.method = "POST";
  unreadable.body = "abc";
  unreadable.bodyInitError = ARKWEB_ERR_FILE_NOT_FOUND;
  LoadResult result = page.load(unreadable);
  EXPECT_TRUE(result.intercepted);
  EXPECT_EQ(result.error, ARKWEB_ERR_FAILED);
  auto failed = log.find("finished", "Velora/Network");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0]["level"], 1);
  EXPECT_NE(failed[0]["error"].get<std::string>().find("upload body could not be read"),
            std::string::npos)
      << failed[0];
  EXPECT_TRUE(velora_test::waitFor([&] { return log.find("~WebRequest").size() == 1; }));
  EXPECT_EQ(origin.count("/echo"), 0);

  // The stream fails after its first piece: the transfer stops at once,
  // rather than when the server tires of waiting for the rest.
  LoadOptions cutShort(origin.url("/echo"));
  cutShort.method = "PUT";
  cutShort.body = patternBytes(3, 10000);
  cutShort.bodyReadError = ARKWEB_ERR_ACCESS_DENIED;
  result = page.load(cutShort);
  EXPECT_EQ(result.error, ARKWEB_ERR_FAILED);
  EXPECT_LT(result.timing.finish - result.timing.start, 5000);
  auto readFailed = log.find("bodyReadFailed", "Velora/web_request");
  ASSERT_EQ(readFailed.size(), 1u);
  EXPECT_EQ(readFailed[0]["level"], 1);
  EXPECT_EQ(readFailed[0]["fields"]["read"], ARKWEB_ERR_ACCESS_DENIED);
}

TEST_P(RequestPathOver, FailuresBeforeTheResponseAfterItAndErrorStatuses) {
  velora_test::TempDir dir;
  alarmUseStatsFile(dir.file("stats.jsonl"));
  BoundPage page("page");
  tide::LogCapture log;
  std::string refusedUrl = std::string(overTls() ? "https" : "http") +
                           "://127.0.0.1:" + std::to_string(velora_test::refusedPort()) + "/x";
  LoadResult refused = page.load(refusedUrl);
  EXPECT_TRUE(refused.intercepted);
  EXPECT_EQ(refused.error, ARKWEB_ERR_FAILED);  // a synthetic failed response
  EXPECT_EQ(refused.status, 0) << "a load that got no response has no status";

  LoadResult reset = page.load(origin.url("/reset?after=1000"));
  EXPECT_EQ(reset.status, 200);
  EXPECT_EQ(reset.body, patternBytes(0, 1000));
  EXPECT_EQ(reset.error, ARKWEB_ERR_FAILED);

  LoadResult unavailable = page.load(origin.url("/status/503"));
  EXPECT_EQ(unavailable.status, 503);
  EXPECT_EQ(unavailable.error, 0);

  ASSERT_TRUE(velora_test::waitFor([&] { return log.find("finished").size() == 3; }));
  auto failed = log.find("finished", "Velora/Network");
  EXPECT_EQ(failed.at(0)["level"], 1);
  EXPECT_EQ(failed.at(0)["fields"]["statusCode"], 7);
  EXPECT_FALSE(failed.at(0)["error"].get<std::string>().empty());

  std::ifstream stats(dir.file("stats.jsonl"));
  std::string line;
  std::vector<nlohmann::json> points;
  while (std::getline(stats, line)) {
    auto point = nlohmann::json::parse(line);
    if (point["point"] == "netError")
      points.push_back(point);
  }
  ASSERT_EQ(points.size(), 2u);  // refused and reset; a 503 is an answer
  std::string text = points[0]["text"];
  EXPECT_EQ(text.rfind("code*F*7#L#msg*F*", 0), 0u) << text;
  EXPECT_NE(text.find("#L#url*F*" + refusedUrl + "#L#"), std::string::npos) << text;
}

TEST(RequestPath, ValidatorsAreDroppedFromGetAndKeptOnPost) {
  OriginServer origin;
  BoundPage page("page");
  LoadOptions get(origin.url("/headers"));
  get.headers = {{"If-None-Match", "\"v1\""}, {"If-Modified-Since", "x"}, {"X-Keep", "1"}};
  auto seen = nlohmann::json::parse(page.load(get).body);
  EXPECT_FALSE(seen.contains("if-none-match"));
  EXPECT_FALSE(seen.contains("if-modified-since"));
  EXPECT_EQ(seen["x-keep"], "1");

  LoadOptions post(origin.url("/echo"));
  post.method = "POST";
  post.body = "b";
  post.headers = {{"If-None-Match", "\"v1\""}};
  auto echoed = nlohmann::json::parse(page.load(post).body);
  EXPECT_EQ(echoed["headers"]["if-none-match"], "\"v1\"");
}

TEST(RequestPath, PolicyDeclinesWithTheFirstMatchingReasonAndSomeSilently) {
  BoundPage page("page");
  tide::LogCapture log;
  InterceptManager& policy = InterceptManager::getInstance();
  auto offline = [](std::string url, bool mainFrame = true, std::string method = "GET") {
    LoadOptions options(std::move(url));
    options.offline = true;  // a declined request fails at once instead of going out
    options.mainFrame = mainFrame;
    options.method = std::move(method);
    return options;
  };
  policy.setWhiteUrlList({"/static/"});
  policy.setWhiteMethods({"POST"});
  policy.addUrlToRuntimeList("http://h.test/runtime");

  policy.setOnlyMainHtml(true);
  EXPECT_FALSE(page.load(offline("http://h.test/static/a.css", false)).intercepted);
  policy.setOnlyMainHtml(false);
  EXPECT_FALSE(page.load(offline("http://h.test/runtime/static/")).intercepted);
  EXPECT_FALSE(page.load(offline("http://h.test/static/b.css")).intercepted);
  EXPECT_FALSE(page.load(offline("http://h.test/form", true, "POST")).intercepted);
  EXPECT_EQ(reasonsLogged(log), (std::vector<std::string>{"onlyMainHtml", "runtimeWhiteList",
                                                          "matchWhiteList", "matchWhiteMethod"}));
  EXPECT_EQ(log.find("ignoreIntercept").at(0)["id"], "page");

  log.clear();
  EXPECT_FALSE(page.load(offline(velora::kSecurityUrlEndpoint)).intercepted);
  EXPECT_FALSE(page.load(offline(std::string(velora::kSecurityUrlEndpoint) + "?v=2")).intercepted);
  policy.setInterceptEnable(false);
  EXPECT_FALSE(page.load(offline("http://h.test/page")).intercepted);
  EXPECT_TRUE(reasonsLogged(log).empty());

  policy.setInterceptEnable(true);
  EXPECT_TRUE(page.load(offline("http://127.0.0.1:1/page")).intercepted);
}

TEST(RequestPath, StartAfterTheDestroyNoticeIsNotIntercepted) {
  BoundPage page("page");
  tide::LogCapture log;
  // The notice runs while the engine may still start requests of the page.
  velora::OnArkWebDestroyCallback("page", nullptr);
  LoadOptions options("http://h.test/late");
  options.offline = true;
  EXPECT_FALSE(page.load(options).intercepted);
  auto destroyed = log.find("nativeDestroy");
  ASSERT_EQ(destroyed.size(), 1u);
  EXPECT_EQ(destroyed[0]["fields"]["removed"], true);
}

TEST_P(RequestPathOver, PageCancellingMidBodyEndsTheRequestCleanly) {
  BoundPage page("page");
  tide::LogCapture log;
  velora_test::HilogCapture hilog;
  OH_LOG_SetMinLogLevel(LOG_DEBUG);
  LoadOptions slow(origin.url("/bytes/65536?chunk=2048&delay=20"));
  slow.cancelAfterMs = 100;
  LoadResult result = page.load(slow);
  EXPECT_EQ(result.error, ARKWEB_ERR_ABORTED);
  EXPECT_LT(result.bodySize, 65536u);
  // The WebRequest ends with the stop; the transfer runs out and its
  // listener frees itself, with nothing delivered to a freed request.
  EXPECT_EQ(log.find("~WebRequest").size(), 1u);
  EXPECT_TRUE(velora_test::waitFor([&] { return hilog.contains("~FlumeRequestListener"); }));
  EXPECT_TRUE(hilog.contains("~FlumeRequest destructor"));
  OH_LOG_SetMinLogLevel(LOG_INFO);
}

TEST(RequestPath, ConsecutiveRequestsGetConsecutiveTags) {
  BoundPage page("page1");
  tide::LogCapture log;
  LoadOptions options("http://127.0.0.1:1/a");
  page.load(options);
  page.load(options);
  auto started = log.find("requestStart", "Velora/web_request");
  ASSERT_EQ(started.size(), 2u);
  std::string first = started[0]["id"], second = started[1]["id"];
  int n = std::stoi(first.substr(7));
  EXPECT_EQ(first, "[page1|" + std::to_string(n) + "]");
  EXPECT_EQ(second, "[page1|" + std::to_string(n + 1) + "]");
}

TEST(RequestPath, TwoThousandRequestsOverTwentyComponentsAtOnce) {
  OriginServer origin;
  std::vector<std::unique_ptr<BoundPage>> pages;
  for (int i = 0; i < 20; ++i)
    pages.push_back(std::make_unique<BoundPage>("c" + std::to_string(i)));
  std::mutex mutex;
  std::condition_variable allDone;
  int done = 0, good = 0;
  const std::string expected = patternBytes(0, 1024);
  for (int i = 0; i < 2000; ++i) {
    pages[i % 20]->web().load(origin.url("/bytes/1024?n=" + std::to_string(i)),
                              [&](LoadResult result) {
                                std::lock_guard<std::mutex> lock(mutex);
                                if (result.intercepted && result.body == expected)
                                  ++good;
                                if (++done == 2000)
                                  allDone.notify_all();
                              });
  }
  std::unique_lock<std::mutex> lock(mutex);
  ASSERT_TRUE(allDone.wait_for(lock, std::chrono::seconds(120), [&] { return done == 2000; }));
  EXPECT_EQ(good, 2000);
}

TEST_P(RequestPathOver, RedirectsToAnotherOriginAndDownToCleartextAreFollowed) {
  BoundPage page("page");
  std::vector<std::string> targets = {origin.otherOriginUrl("/bytes/300")};
  if (overTls())
    targets.push_back(origin.httpUrl("/bytes/300"));
  for (const std::string& target : targets) {
    LoadResult result = page.load(origin.url("/redirect?code=302&to=" + target));
    EXPECT_TRUE(result.intercepted);
    EXPECT_EQ(result.error, 0) << target;
    EXPECT_EQ(result.redirects, 1);
    EXPECT_EQ(result.url, target);
    EXPECT_EQ(result.body, patternBytes(0, 300)) << target;
  }
  EXPECT_EQ(origin.count("/bytes/300"), static_cast<int>(targets.size()));
}

// Each kind of server a browser refuses ends the page's load once, with the
// generic failure and no status, and one error entry naming the cause; the
// request is never sent again over cleartext.
TEST(RequestPathTls, ServersABrowserRefusesFailThePageOnceWithoutAStatus) {
  OriginServer origin;
  BoundPage page("page");
  tide::LogCapture log;
  const std::vector<velora_test::RefusedServer>& cases = velora_test::refusedServers();
  for (const velora_test::RefusedServer& c : cases) {
    LoadResult result = page.load(origin.faultUrl(c.fault, "/page"));
    EXPECT_TRUE(result.intercepted) << c.fault;
    EXPECT_EQ(result.error, ARKWEB_ERR_FAILED) << c.fault;
    EXPECT_EQ(result.status, 0) << c.fault;
    EXPECT_TRUE(result.headers.empty()) << c.fault;
  }
  ASSERT_TRUE(velora_test::waitFor([&] { return log.find("finished").size() == cases.size(); }));
  auto failed = log.find("finished", "Velora/Network");
  ASSERT_EQ(failed.size(), cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(failed[i]["level"], 1);
    EXPECT_NE(failed[i]["error"].get<std::string>().find(cases[i].cause), std::string::npos)
        << failed[i];
  }
  EXPECT_EQ(origin.tls().refusedReached, 0);
  EXPECT_EQ(origin.count("/page"), 0) << "the page was asked for over cleartext";
}

VELORA_OVER_EACH_TRANSPORT(RequestPathOver);
