// Server-rendered pages end to end: host engine -> scheme handler ->
// WebRequest -> SSR carrier (-> first-chunk handler) -> gateway -> origin.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sqlite3.h>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "analytics/host_config.h"
#include "bound_page.h"
#include "first_chunk/first_chunk_context.h"
#include "first_chunk/first_chunk_handler.h"
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/first_chunk_storage.h"
#include "first_chunk/ssr_client_info.h"
#include "flume/host_config.h"
#include "gantry_ssr/host_config.h"
#include "gantry_ssr/ssr_service.h"
#include "intercept/intercept_manager.h"
#include "network/net_service.h"
#include "omni/ability.h"
#include "omni/ability_registry.h"
#include "omni_ability/api_info_helper.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"
#include "tern/base64.h"
#include "tern/singleton.h"
#include "tern/string_utils.h"
#include "tern/time_utils.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"
#include "transport_param.h"
#include "utils/simple_url_parser.h"

using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using velora::FirstChunkHandler;
using velora::FirstChunkManager;
using velora::FirstChunkStorage;
using velora_test::BoundPage;
using velora_test::OriginServer;

namespace {

const std::string kScript = FirstChunkHandler::getInvalidateScriptData();

void setFcc(bool on) {
  tern::Singleton<FirstChunkManager>::getInstance().setEnable(on);
}

class SsrPathBase : public ::testing::Test {
 protected:
  explicit SsrPathBase(velora_test::Transport transport = velora_test::Transport::kHttp)
      : origin_(transport) {}

  void SetUp() override {
    stats_ = statsDir_.file("stats.jsonl");
    alarmUseStatsFile(stats_);
    gantry_ssr::setRules({origin_.url("/fcc/"), origin_.url("/echo"), origin_.url("/headers"),
                          origin_.url("/status/")});
    setFcc(true);
  }
  void TearDown() override {
    gantry_ssr::setRules({});
    setFcc(false);
    velora::SSRClientInfo::setWidth(0);
    velora::SSRClientInfo::setHeight(0);
    velora::SSRClientInfo::setSafeAreaHeight(0);
    velora::SSRClientInfo::setDeviceRatio(0);
  }

  // The first chunk and the whole page the origin renders for NAME at VERSION.
  static std::string chunk(const std::string& name, const std::string& version) {
    return "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" + name +
           "</title><style>body{font-family:sans-serif;margin:0}header{background:#234;color:#fff;"
           "padding:12px}</style></head><body><header id=\"shell\">" +
           name + " (version " + version + ")</header>" + FirstChunkHandler::kMarker;
  }
  std::string live(const std::string& name, const std::string& version, size_t size = 2048) {
    velora_test::FetchResult rest = velora_test::fetch(origin_.url(
        "/fcc/" + name + "?delay=0&size=" + std::to_string(size) + "&version=" + version));
    return rest.body;
  }

  // The request headers the origin saw last for `path`.
  nlohmann::json seen(const std::string& path) {
    return nlohmann::json::parse(velora_test::fetch(origin_.httpUrl("/__seen?path=" + path)).body);
  }

  // The types of the "firstChunkCache" points so far.
  std::vector<int> cacheTypes() {
    std::vector<int> types;
    std::ifstream in(stats_);
    std::string line;
    while (std::getline(in, line)) {
      auto point = nlohmann::json::parse(line);
      if (point["point"] != "firstChunkCache")
        continue;
      std::string text = point["text"];
      EXPECT_EQ(text.rfind("type*F*", 0), 0u) << text;
      types.push_back(text[7] - '0');
    }
    return types;
  }

  OriginServer origin_;
  velora_test::TempDir statsDir_;
  std::string stats_;
};

class SsrPath : public SsrPathBase {};

// The same pages over each transport to the gateway's origin.
class SsrPathOver : public SsrPathBase,
                    public ::testing::WithParamInterface<velora_test::Transport> {
 protected:
  SsrPathOver() : SsrPathBase(GetParam()) {}
};

std::string urlDecode(const std::string& text) {
  return velora::SimpleUrlParser::urlDecode(text);
}

}  // namespace

TEST_F(SsrPath, GatewayUrlsTakeTheSsrCarrierWithTheClientDescription) {
  auto none = std::shared_ptr<velora::NetRequestCallBack>();
  EXPECT_EQ(velora::NetService::createNetRequest(origin_.url("/fcc/a"), none)->name(),
            "SSRRequest");
  EXPECT_EQ(velora::NetService::createNetRequest(origin_.url("/bytes/1"), none)->name(),
            "FlumeRequest");
  EXPECT_EQ(velora::NetService::createNetRequest("", none)->name(), "FlumeRequest");

  BoundPage page("ssr");
  LoadResult result = page.load(origin_.url("/headers"));
  ASSERT_EQ(result.status, 200);
  auto sent = nlohmann::json::parse(result.body);
  EXPECT_EQ(sent["kp-client-context"], "w=0&h=0&ls=0&sh=0&dpr=0.000000&dl=0");
  EXPECT_FALSE(sent.contains("api-context"));
  // Repeated headers survive the gateway.
  EXPECT_EQ(velora_test::headerValues(result.headers, "X-Multi"),
            (std::vector<std::string>{"first", "second"}));

  velora::SSRClientInfo::setWidth(1260);
  velora::SSRClientInfo::setHeight(2720);
  velora::SSRClientInfo::setSafeAreaHeight(120);
  velora::SSRClientInfo::setDeviceRatio(3.25f);
  sent = nlohmann::json::parse(page.load(origin_.url("/headers")).body);
  EXPECT_EQ(sent["kp-client-context"], "w=1260&h=2720&ls=0&sh=120&dpr=3.250000&dl=0");

  // Only "POST" exactly is a POST; the gateway carries no body.
  for (const auto& [method, expected] : std::vector<std::pair<std::string, std::string>>{
           {"POST", "POST"}, {"post", "GET"}, {"PUT", "GET"}}) {
    LoadOptions options(origin_.url("/echo"));
    options.method = method;
    LoadResult echoed = page.load(options);
    ASSERT_EQ(echoed.status, 200) << method;
    EXPECT_EQ(nlohmann::json::parse(echoed.body)["method"], expected) << method;
  }
  // Failures keep the gateway's status as it is.
  EXPECT_EQ(page.load(origin_.url("/status/503")).status, 503);
}

TEST_P(SsrPathOver, SecondVisitStartsFromTheStoredChunkAndEqualsTheLivePage) {
  BoundPage page("ssr");
  const std::string url = origin_.url("/fcc/home?wait=100&delay=100");
  const std::string expected = live("home", "1");

  LoadResult first = page.load(url);
  EXPECT_TRUE(first.intercepted);
  EXPECT_EQ(first.body, expected);
  EXPECT_TRUE(velora_test::headerValues(first.headers, "x-first-chunk-cache").empty());
  EXPECT_FALSE(seen("/fcc/home")["browser-user-agent"].get<std::string>().empty());

  std::vector<std::pair<double, size_t>> pieces;
  std::mutex mutex;
  LoadOptions options(url);
  options.onData = [&](const char*, size_t size, double atMs) {
    std::lock_guard<std::mutex> lock(mutex);
    pieces.emplace_back(atMs, size);
  };
  LoadResult second = page.load(options);
  EXPECT_EQ(second.status, 200);
  EXPECT_EQ(second.body, expected);
  EXPECT_EQ(velora_test::headerValues(second.headers, "x-first-chunk-cache"),
            std::vector<std::string>{"true"});
  EXPECT_EQ(velora_test::headerValues(second.headers, "x-first-chunk-length"),
            std::vector<std::string>{std::to_string(chunk("home", "1").size())});
  // The stored chunk came whole, first, before the server had answered.
  ASSERT_FALSE(pieces.empty());
  EXPECT_EQ(pieces[0].second, chunk("home", "1").size());
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0, 1}));
}

TEST_F(SsrPath, ANewVersionIsUndoneInThePageAndStoredForNextTime) {
  BoundPage page("ssr");
  ASSERT_EQ(page.load(origin_.url("/fcc/news?version=1")).status, 200);
  LoadResult changed = page.load(origin_.url("/fcc/news?version=2"));
  EXPECT_EQ(changed.body, chunk("news", "1") + kScript + live("news", "2"));
  LoadResult again = page.load(origin_.url("/fcc/news?version=2"));
  EXPECT_EQ(again.body, live("news", "2"));
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0, 2, 1}));
}

TEST_F(SsrPath, AServerThatSwitchesTheCacheOffGetsItsRecordRemoved) {
  BoundPage page("ssr");
  const std::string url = origin_.url("/fcc/off");
  ASSERT_EQ(page.load(url).status, 200);
  ASSERT_TRUE(FirstChunkStorage(url).read(url));

  LoadResult off = page.load(origin_.url("/fcc/off?enable=false"));
  EXPECT_EQ(off.body, chunk("off", "1") + kScript + live("off", "1"));
  EXPECT_FALSE(FirstChunkStorage(url).read(url));
  LoadResult after = page.load(origin_.url("/fcc/off?enable=false"));
  EXPECT_EQ(after.body, live("off", "1"));
  EXPECT_TRUE(velora_test::headerValues(after.headers, "x-first-chunk-cache").empty());
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0, 2, 0}));
}

TEST_F(SsrPath, AnExpiredRecordIsRemovedAndNotServed) {
  BoundPage page("ssr");
  const std::string past = std::to_string(tern::currentTimeMillis() - 60000);
  const std::string url = origin_.url("/fcc/old?expire=" + past);
  ASSERT_EQ(page.load(url).status, 200);
  tide::LogCapture log;
  LoadResult second = page.load(url);
  EXPECT_EQ(second.body, live("old", "1"));
  EXPECT_TRUE(velora_test::headerValues(second.headers, "x-first-chunk-cache").empty());
  EXPECT_EQ(log.find("remove", "Velora/first_chunk_storage").size(), 1u);
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0, 3}));
}

TEST_F(SsrPath, GatewayFailuresReachTheEngineAsFailed) {
  const std::string refused =
      "http://127.0.0.1:" + std::to_string(velora_test::refusedPort()) + "/fcc/";
  gantry_ssr::setRules({refused});
  BoundPage page("ssr");
  tide::LogCapture log;
  setFcc(false);
  LoadResult plain = page.load(refused + "down");
  EXPECT_EQ(plain.error, ARKWEB_ERR_FAILED);

  // With a stored chunk the engine already has a 200 and the chunk: the
  // failure still ends the load.
  setFcc(true);
  auto record = std::make_shared<velora::FirstChunkContext>();
  record->setEnable(true);
  record->setUrl(refused + "down");
  record->setHtml(chunk("down", "1"));
  record->setExpiredTime(tern::currentTimeMillis() + 60000.0);
  ASSERT_TRUE(FirstChunkStorage(refused + "down").write(record));
  LoadResult served = page.load(refused + "down");
  EXPECT_EQ(served.error, ARKWEB_ERR_FAILED);
  EXPECT_EQ(served.status, 200);
  EXPECT_EQ(served.body, chunk("down", "1"));
  auto error = log.find("error", "Velora/first_chunk_handler").at(0)["fields"];
  EXPECT_EQ(error["useFirstChunkCache"], true);
  EXPECT_NE(error["code"], 0);
  EXPECT_FALSE(error["msg"].get<std::string>().empty());
}

TEST_F(SsrPath, TheSwitchDecidesForTheNextRequest) {
  BoundPage page("ssr");
  const std::string url = origin_.url("/fcc/toggle");
  setFcc(false);
  ASSERT_EQ(page.load(url).status, 200);
  EXPECT_FALSE(seen("/fcc/toggle").contains("browser-user-agent"));
  EXPECT_FALSE(FirstChunkStorage(url).read(url));

  setFcc(true);
  ASSERT_EQ(page.load(url).status, 200);
  EXPECT_TRUE(seen("/fcc/toggle").contains("browser-user-agent"));
  ASSERT_TRUE(FirstChunkStorage(url).read(url));

  // A stored chunk is not served while the switch is off.
  setFcc(false);
  LoadResult off = page.load(url);
  EXPECT_TRUE(velora_test::headerValues(off.headers, "x-first-chunk-cache").empty());
  EXPECT_EQ(off.body, live("toggle", "1"));
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0}));
}

// An ability the tests allow a page to call: "echo" answers the page URL and
// its parameters; "block" holds its caller until release(); "silent" never
// answers.
class ProbeAbility final : public omni::Ability {
 public:
  void execute(const std::string& api,
               std::shared_ptr<omni::AbilityContext> context,
               const omni::AbilityData& data,
               Callback callback) override {
    if (api == "echo") {
      callback(omni::ExecuteResult::success(
          {{"page", context->getDataFromUserDataMap(velora::kPageUrlKey)},
           {"params", data.getData()}}));
    } else if (api == "block") {
      std::unique_lock<std::mutex> lock(mutex_);
      entered_ = true;
      changed_.notify_all();
      changed_.wait_for(lock, std::chrono::seconds(10), [this] { return released_; });
      callback(omni::ExecuteResult::success());
    } else if (api != "silent") {
      callback(omni::ExecuteResult::error("NOT_SUPPORTED", api));
    }
  }
  bool waitUntilBlocking() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [this] { return entered_; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool released_ = false;
};

class SsrApiInfo : public SsrPath {
 protected:
  void SetUp() override {
    SsrPath::SetUp();
    omni::AbilityRegistry::registerAbility("Probe", probe_);
    ASSERT_TRUE(omni::AbilityRegistry::loadAbility("", "SSRAbility"));
  }
  void TearDown() override {
    probe_->release();
    omni::AbilityRegistry::registerAbility("Probe", nullptr);
    velora::InterceptManager::getInstance().setApiInfoAllowList({});
    SsrPath::TearDown();
  }
  static std::string apiInfo(const std::string& json) {
    return tern::string_utils::urlEncode(tern::base64::encode(json));
  }
  // The api-context answers the origin saw for a load of /headers.
  static nlohmann::json answers(const LoadResult& result) {
    auto sent = nlohmann::json::parse(result.body);
    return sent.contains("api-context") ? nlohmann::json::parse(urlDecode(sent["api-context"]))
                                        : nlohmann::json();
  }

  std::shared_ptr<ProbeAbility> probe_ = std::make_shared<ProbeAbility>();
};

TEST_F(SsrApiInfo, OnlyAllowedCallsRunAndAnswersTravelInTheApiContextHeader) {
  velora::InterceptManager::getInstance().setApiInfoAllowList(
      {"Probe.echo", "SSRAbility.setFirstChunkCache"});
  BoundPage page("ssr");
  const std::string requests =
      R"([["Probe.echo",{"a":1}],["Probe.other",{}],["nodot",{}],["one.only"],)"
      R"(["Missing.api",[1,2]],7])";
  tide::LogCapture log;
  const std::string url = origin_.url("/headers?api-info=" + apiInfo(requests));
  LoadResult result = page.load(url);
  ASSERT_EQ(result.status, 200);
  auto sent = answers(result);
  ASSERT_EQ(sent.size(), 3u) << sent.dump();
  EXPECT_EQ(sent[0][0], "Probe.echo");
  EXPECT_EQ(sent[0][2]["type"], "result");
  // The ability saw the page that asked.
  EXPECT_EQ(sent[0][2]["data"]["page"], url);
  EXPECT_EQ(sent[0][2]["data"]["params"]["a"], 1);
  for (int i : {1, 2}) {
    EXPECT_EQ(sent[i][2]["type"], "error") << sent[i];
    EXPECT_EQ(sent[i][2]["code"], "NOT_ALLOWED") << sent[i];
  }
  EXPECT_EQ(sent[2][1], nlohmann::json::parse("[1,2]"));
  EXPECT_EQ(log.find("refused", "Velora/api_info").size(), 2u);
  EXPECT_TRUE(log.find("exception").empty());

  // Malformed fields: no header, one entry each, and the page still loads.
  for (const std::string& field : {tern::string_utils::urlEncode("not*base64!"),
                                   apiInfo("{not json"), apiInfo(R"([[7,1]])")}) {
    log.clear();
    LoadResult bad = page.load(origin_.url("/headers?api-info=" + field));
    ASSERT_EQ(bad.status, 200) << field;
    EXPECT_FALSE(nlohmann::json::parse(bad.body).contains("api-context")) << field;
    EXPECT_EQ(log.find("exception", "Velora/api_info").size(), 1u) << field;
  }
}

TEST_F(SsrApiInfo, ALinkCanNeitherWriteAFirstChunkNorFetchAnotherScheme) {
  // Even listed by mistake, the SSR ability's operations never run from a URL.
  velora::InterceptManager::getInstance().setApiInfoAllowList(
      {"SSRAbility.setFirstChunkCache", "SSRAbility.preloadFirstChunk"});
  BoundPage page("ssr");
  const std::string injected = "<script>alert('injected')</script>";
  // A listener that must never see a byte: what gopher:// or dict:// would reach.
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  socklen_t length = sizeof(address);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string port = std::to_string(ntohs(address.sin_port));
  const std::string requests = R"([["SSRAbility.setFirstChunkCache",{"html":")" + injected +
                               R"("}],)"
                               R"(["SSRAbility.preloadFirstChunk",{"url":"gopher://127.0.0.1:)" +
                               port + R"(/_x"}]])";
  // A gateway page that keeps no first chunk of its own: whatever the
  // second visit starts from could only have come from the link.
  const std::string url = origin_.url("/headers?api-info=" + apiInfo(requests));
  tide::LogCapture log;
  LoadResult first = page.load(url);
  ASSERT_EQ(first.status, 200);
  arkweb_host::waitIdle();
  LoadResult second = page.load(url);
  EXPECT_EQ(second.body.find(injected), std::string::npos);
  EXPECT_TRUE(velora_test::headerValues(second.headers, "x-first-chunk-cache").empty());
  EXPECT_FALSE(FirstChunkStorage(url).read(url));
  EXPECT_EQ(log.find("refused", "Velora/api_info").size(), 4u);

  // Called directly, the ability itself refuses every scheme but http(s),
  // and nothing reaches the listener.
  for (const std::string& target : std::vector<std::string>{
           "gopher://127.0.0.1:" + port + "/_x", "dict://127.0.0.1:" + port + "/d:x",
           "file:///etc/passwd", "ftp://127.0.0.1:" + port + "/"}) {
    std::promise<omni::ExecuteResult> answered;
    omni::AbilityRegistry::find("SSRAbility")
        ->execute("preloadFirstChunk", std::make_shared<omni::AbilityContext>(),
                  omni::AbilityData(nlohmann::json{{"url", target}}),
                  [&answered](const omni::ExecuteResult& result) { answered.set_value(result); });
    auto result = answered.get_future().get();
    EXPECT_EQ(result.getCode(), "INVALID_PARAM") << target;
  }
  // And flume refuses them too, for any caller.
  for (const std::string& target :
       std::vector<std::string>{"gopher://127.0.0.1:" + port + "/_x",
                                "dict://127.0.0.1:" + port + "/d:x", "file:///etc/passwd"}) {
    velora_test::FetchResult fetched = velora_test::fetch(target);
    EXPECT_NE(fetched.errorCode, 0) << target;
    EXPECT_FALSE(fetched.responded) << target;
  }
  // A redirect to another scheme is not followed either.
  LoadResult redirected =
      page.load(origin_.url("/redirect?to=" + tern::string_utils::urlEncode("file:///etc/passwd")));
  EXPECT_EQ(redirected.body.find("root:"), std::string::npos);
  pollfd poll{listener, POLLIN, 0};
  EXPECT_EQ(::poll(&poll, 1, 200), 0) << "the listener was reached";
  close(listener);
}

TEST_F(SsrApiInfo, ABlockingAbilityHoldsUpOnlyThePageThatAskedAndTheBudgetEndsAWait) {
  velora::InterceptManager::getInstance().setApiInfoAllowList({"Probe.block", "Probe.silent"});
  BoundPage asking("asking");
  BoundPage other("other");
  velora_test::PendingLoad blocked(
      asking.web(), origin_.url("/headers?api-info=" + apiInfo(R"([["Probe.block",{}]])")));
  ASSERT_TRUE(probe_->waitUntilBlocking());
  // While it blocks, another page of the same app loads: a plain resource
  // and a server-rendered page without calls.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(other.load(origin_.url("/bytes/1000")).status, 200);
  EXPECT_EQ(other.load(origin_.url("/fcc/meanwhile")).status, 200);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_FALSE(blocked.waitForEnd(std::chrono::milliseconds(0)));
  probe_->release();
  ASSERT_TRUE(blocked.waitForEnd());
  EXPECT_EQ(answers(blocked.result())[0][2]["type"], "result");

  // An ability that never answers costs the page its budget, no more, and
  // calls after it answer at once.
  start = std::chrono::steady_clock::now();
  LoadResult silent = asking.load(
      origin_.url("/headers?api-info=" + apiInfo(R"([["Probe.silent",{}],["Probe.silent",{}]])")));
  auto waited = std::chrono::steady_clock::now() - start;
  ASSERT_EQ(silent.status, 200);
  auto sent = answers(silent);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0][2]["code"], "TIMEOUT");
  EXPECT_EQ(sent[1][2]["code"], "TIMEOUT");
  EXPECT_GE(waited, std::chrono::milliseconds(velora::ApiInfoHelper::kBudgetMs));
  EXPECT_LT(waited, std::chrono::milliseconds(velora::ApiInfoHelper::kBudgetMs * 2));
}

TEST_P(SsrPathOver, APageDestroyedMidBodyEndsCleanly) {
  auto page = std::make_unique<BoundPage>("ssr");
  velora_test::PendingLoad load(page->web(),
                                origin_.url("/fcc/long?delay=300&size=1048576&piece=16384"));
  ASSERT_TRUE(load.waitForBytes());
  page->destroy();
  ASSERT_TRUE(load.waitForEnd());
  const LoadResult& result = load.result();
  EXPECT_EQ(result.error, ARKWEB_ERR_ABORTED);
  EXPECT_LT(result.bodySize, 1048576u);
  // The rest of the answer arrives with nobody to take it.
  arkweb_host::waitIdle();
  page.reset();
  BoundPage next("ssr");
  EXPECT_EQ(next.load(origin_.url("/fcc/long?delay=0&size=1048576")).body,
            live("long", "1", 1048576));
}

TEST_F(SsrPath, AFirstChunkPrefetchAsksTheGatewayForTheChunkAlone) {
  auto startFirstChunk = [](const std::string& url,
                            std::map<std::string, std::string> headers = {}) {
    auto request = std::make_shared<velora::PrefetchRequest>(url);
    request->setJustFirstChunk(true);
    for (const auto& [name, value] : headers)
      request->setHeader(name, value);
    return velora::PrefetchNetwork::startPrefetch(request, nullptr);
  };
  std::string id = startFirstChunk(origin_.url("/fcc/pre"));
  auto described = velora::PrefetchNetwork::getPrefetchRequest(id);
  ASSERT_TRUE(described);
  EXPECT_FALSE(described->isJustFirstChunk());
  EXPECT_EQ(described->getHeaders().at("x-s-first-chunk"), "true");
  ASSERT_TRUE(velora_test::waitFor([&] { return origin_.count("/fcc/pre") == 1; }));
  ASSERT_TRUE(velora_test::waitFor([&] { return !seen("/fcc/pre").is_null(); }));
  EXPECT_EQ(seen("/fcc/pre")["x-s-first-chunk"], "true");

  std::string overridden = startFirstChunk(origin_.url("/fcc/pre"), {{"x-s-first-chunk", "false"}});
  EXPECT_EQ(
      velora::PrefetchNetwork::getPrefetchRequest(overridden)->getHeaders().at("x-s-first-chunk"),
      "false");
  std::string plain = startFirstChunk(origin_.url("/bytes/10"));
  EXPECT_FALSE(
      velora::PrefetchNetwork::getPrefetchRequest(plain)->getHeaders().count("x-s-first-chunk"));
  for (const auto& each : {id, overridden, plain})
    velora::PrefetchNetwork::removePrefetch(each);
}

TEST_P(SsrPathOver, StoppingAServerRenderedPageStopsItsTransfer) {
  // 64 MiB paced at about 13 MB/s: without a cancel it keeps coming for seconds.
  const std::string path = "/fcc/stopped";
  auto page = std::make_unique<BoundPage>("ssr");
  {
    velora_test::PendingLoad load(page->web(),
                                  origin_.url(path + "?delay=0&size=67108864&piece=65536&every=5"));
    ASSERT_TRUE(load.waitForBytes());
    page->destroy();
    ASSERT_TRUE(load.waitForEnd());
    EXPECT_EQ(load.result().error, ARKWEB_ERR_ABORTED);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const int64_t atStop = origin_.sentBytes(path);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  RecordProperty("bytesAfterStop", static_cast<int>(origin_.sentBytes(path) - atStop));
  EXPECT_LT(origin_.sentBytes(path) - atStop, 256 * 1024) << "the gateway transfer went on";
  EXPECT_LT(origin_.sentBytes(path), 16 * 1024 * 1024);
}

TEST_F(SsrPath, StalledResponsesFailSoonAfterTheIdleTimeout) {
  flume::setDefaultTimeouts(30000, 1500);
  BoundPage page("ssr");
  setFcc(false);
  for (const std::string& path :
       {std::string("/fcc/stalled?stall=1"), std::string("/stall?after=100")}) {
    std::chrono::steady_clock::time_point firstByte;
    LoadOptions options(origin_.url(path));
    options.onData = [&firstByte](const char*, size_t, double) {
      if (firstByte == std::chrono::steady_clock::time_point())
        firstByte = std::chrono::steady_clock::now();
    };
    LoadResult result = page.load(options);
    auto afterStall = std::chrono::steady_clock::now() - firstByte;
    EXPECT_EQ(result.error, ARKWEB_ERR_FAILED) << path;
    EXPECT_GE(afterStall, std::chrono::milliseconds(1400)) << path;
    EXPECT_LT(afterStall, std::chrono::milliseconds(2000)) << path;
  }
  flume::setDefaultTimeouts(30000, 60000);
}

TEST_F(SsrPath, ALockedStoreHoldsUpNoOtherLoad) {
  // Another process holds the store's database locked: the first chunk's
  // write waits for it, on a background thread, while other pages load.
  BoundPage ssr("ssr");
  BoundPage other("other");
  ASSERT_EQ(ssr.load(origin_.url("/fcc/locked")).status, 200);  // opens the database
  arkweb_host::waitIdle();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((std::string(getenv("VELORA_DATA_DIR")) + "/store.db").c_str(), &db),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  auto start = std::chrono::steady_clock::now();
  velora_test::PendingLoad writing(ssr.web(), origin_.url("/fcc/locked?version=2&delay=0"));
  ASSERT_TRUE(writing.waitForEnd());
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(other.load(origin_.url("/bytes/1000")).status, 200);
  auto otherLoads = std::chrono::steady_clock::now() - start;
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  RecordProperty(
      "otherLoadsMs",
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(otherLoads).count()));
  EXPECT_LT(otherLoads, std::chrono::milliseconds(1000));
  arkweb_host::waitIdle();
}

TEST_F(SsrPath, ChunksThatAreNotUtf8AreServedByteExactAndLargeOnesAreNotStored) {
  BoundPage page("ssr");
  // Latin-1 bytes in the chunk and in fcc-version.
  const std::string latin1 = origin_.url("/fcc/latin?latin1=1");
  LoadResult first = page.load(latin1);
  ASSERT_EQ(first.status, 200);
  ASSERT_NE(first.body.find('\xe9'), std::string::npos);
  arkweb_host::waitIdle();
  LoadResult second = page.load(latin1);
  EXPECT_EQ(velora_test::headerValues(second.headers, "x-first-chunk-cache"),
            std::vector<std::string>{"true"});
  EXPECT_EQ(second.body, first.body);
  EXPECT_EQ(cacheTypes(), (std::vector<int>{0, 1}));

  // A 5 MB first chunk: passed through, never stored, and no log line
  // carries it.
  tide::LogCapture log;
  struct rusage before {};
  getrusage(RUSAGE_SELF, &before);
  const std::string large = origin_.url("/fcc/large?pad=5000000");
  for (int visit = 0; visit < 2; ++visit) {
    LoadResult result = page.load(large);
    ASSERT_EQ(result.status, 200);
    EXPECT_GT(result.body.size(), 5000000u);
    EXPECT_TRUE(velora_test::headerValues(result.headers, "x-first-chunk-cache").empty());
  }
  arkweb_host::waitIdle();
  struct rusage after {};
  getrusage(RUSAGE_SELF, &after);
  RecordProperty("maxRssGrowthKiB", static_cast<int>(after.ru_maxrss - before.ru_maxrss));
  EXPECT_FALSE(FirstChunkStorage(large).read(large));
  EXPECT_EQ(log.find("markerNotFound", "Velora/first_chunk_handler").size(), 2u);
  for (const auto& entry : log.entries())
    EXPECT_LT(entry.dump().size(), 8192u) << entry["event"];
}

TEST_F(SsrPath, AServersQueryRuleDecidesWhichVisitsTheChunkServes) {
  BoundPage page("ssr");
  auto visit = [&](const std::string& id) {
    LoadResult result = page.load(origin_.url("/fcc/ruled?rule=id&id=" + id));
    arkweb_host::waitIdle();
    return !velora_test::headerValues(result.headers, "x-first-chunk-cache").empty();
  };
  EXPECT_FALSE(visit("1"));
  EXPECT_TRUE(visit("1"));
  EXPECT_FALSE(visit("2"));  // another id: the stored chunk is not its own
  EXPECT_TRUE(visit("2"));
}

VELORA_OVER_EACH_TRANSPORT(SsrPathOver);
