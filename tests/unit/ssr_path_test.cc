// Server-rendered pages end to end: host engine -> scheme handler ->
// WebRequest -> SSR carrier (-> first-chunk handler) -> gateway -> origin.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <nlohmann/json.hpp>

#include "analytics/host_config.h"
#include "bound_page.h"
#include "first_chunk/first_chunk_context.h"
#include "first_chunk/first_chunk_handler.h"
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/first_chunk_storage.h"
#include "first_chunk/ssr_client_info.h"
#include "gantry_ssr/host_config.h"
#include "gantry_ssr/ssr_service.h"
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

class SsrPath : public ::testing::Test {
 protected:
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
    return nlohmann::json::parse(velora_test::fetch(origin_.url("/__seen?path=" + path)).body);
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

TEST_F(SsrPath, SecondVisitStartsFromTheStoredChunkAndEqualsTheLivePage) {
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

TEST_F(SsrPath, ApiInfoAnswersTravelInTheApiContextHeader) {
  ASSERT_TRUE(omni::AbilityRegistry::loadAbility("", "SSRAbility"));
  BoundPage page("ssr");
  auto apiInfo = [](const std::string& json) {
    return tern::string_utils::urlEncode(tern::base64::encode(json));
  };
  const std::string requests =
      R"([["SSRAbility.removeFirstChunkCache",{}],["nodot",{}],["one.only"],)"
      R"(["Missing.api",[1,2]],7])";
  tide::LogCapture log;
  LoadResult result = page.load(origin_.url("/headers?api-info=" + apiInfo(requests)));
  ASSERT_EQ(result.status, 200);
  auto sent = nlohmann::json::parse(result.body);
  ASSERT_TRUE(sent.contains("api-context"));
  auto answers = nlohmann::json::parse(urlDecode(sent["api-context"]));
  ASSERT_EQ(answers.size(), 2u) << answers.dump();
  EXPECT_EQ(answers[0][0], "SSRAbility.removeFirstChunkCache");
  EXPECT_EQ(answers[0][2]["type"], "result");
  EXPECT_EQ(answers[1][0], "Missing.api");
  EXPECT_EQ(answers[1][1], nlohmann::json::parse("[1,2]"));
  EXPECT_EQ(answers[1][2]["code"], "NOT_FOUND");
  // The ability saw the page that asked.
  EXPECT_EQ(log.find("removeFirstChunkCache", "Velora/ssr_ability").at(0)["fields"]["url"],
            origin_.url("/headers?api-info=" + apiInfo(requests)));
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

TEST_F(SsrPath, APageDestroyedMidBodyEndsCleanly) {
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
