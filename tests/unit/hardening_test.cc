// Input from strangers through the module: credentials kept out of the log,
// documents nested to overflow the stack, and header lines smuggled in.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "bound_page.h"
#include "first_chunk/first_chunk_storage.h"
#include "intercept/intercept_manager.h"
#include "napi/sdk_init_info.h"
#include "omni_ability/api_info_helper.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"
#include "tern/base64.h"
#include "tern/cache_service.h"
#include "tern/string_utils.h"
#include "tessera/host_config.h"
#include "tessera/tessera_config.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"
#include "user_agent/user_agent_helper.h"

using velora_test::BoundPage;
using velora_test::OriginServer;

namespace {

const std::string kDeep = std::string(100000, '[') + std::string(100000, ']');

std::string startPrefetch(const std::string& url, std::map<std::string, std::string> headers) {
  auto request = std::make_shared<velora::PrefetchRequest>(url);
  request->setMethod("GET");
  for (const auto& [name, value] : headers)
    request->setHeader(name, value);
  return velora::PrefetchNetwork::startPrefetch(request, nullptr);
}

}  // namespace

TEST(Hardening, CredentialsStayOutOfTheLogUnlessTheAppDebugs) {
  OriginServer origin;
  BoundPage page("page");
  arkweb_host::LoadOptions options(origin.url("/headers"));
  options.headers = {
      {"Cookie", "sid=secret"}, {"authorization", "Bearer secret"}, {"X-Plain", "visible"}};
  for (bool debug : {false, true}) {
    velora::SdkInitInfo::getInstance().setDebug(debug);
    tide::LogCapture log;
    ASSERT_EQ(page.load(options).status, 200);
    std::string id = startPrefetch(origin.url("/bytes/1"), {{"Proxy-Authorization", "secret"}});
    velora::PrefetchNetwork::removePrefetch(id);

    auto sent = log.find("request", "Velora/Network").at(0)["fields"]["header"];
    auto received = log.find("response", "Velora/Network").at(0)["fields"]["header"];
    auto prefetch = log.find("startPrefetch").at(0)["fields"];
    EXPECT_EQ(sent["X-Plain"], "visible");
    if (!debug) {
      EXPECT_EQ(sent["Cookie"], "<redacted>");
      EXPECT_EQ(sent["authorization"], "<redacted>");
      EXPECT_EQ(received["Set-Cookie"].dump(), R"(["<redacted>","<redacted>","<redacted>"])");
      EXPECT_EQ(prefetch["Proxy-Authorization"], "<redacted>");
      for (const auto& entry : log.entries())
        EXPECT_EQ(entry.dump().find("secret"), std::string::npos) << entry.dump();
    } else {
      EXPECT_EQ(sent["Cookie"], "sid=secret");
      EXPECT_EQ(received["Set-Cookie"][0], "a=1; Path=/");
    }
  }
  velora::SdkInitInfo::getInstance().setDebug(false);
}

TEST(Hardening, DeeplyNestedDocumentsAreRefusedWhereverTheyComeFrom) {
  tide::LogCapture log;
  // Remote configuration, as a list value and as the file itself.
  velora::InterceptManager::getInstance().setWhiteUrlList({"kept"});
  velora::InterceptManager::getInstance().updateTesseraConfig(
      "remote", [](const std::string& key) { return key == "whiteList" ? kDeep : std::string(); });
  EXPECT_TRUE(velora::InterceptManager::getInstance().isInWhiteList("kept"));
  velora_test::TempDir dir;
  velora_test::writeFile(dir.file("config.json"), R"({"ns": {"k": "v"}})");
  tessera::useConfigFile(dir.file("config.json"));
  velora_test::writeFile(dir.file("deep.json"), "{\"ns\": {\"k\": " + kDeep + "}}");
  tessera::useConfigFile(dir.file("deep.json"));
  EXPECT_EQ(tessera::getITesseraConfig()->getConfigs("ns")["k"], "v");

  // A stored first-chunk record and a page's api-info.
  const std::string page = "https://h.example/deep";
  velora::FirstChunkStorage storage(page);
  tern::ICacheService::of("VeloraFirstChunk")->put(storage.getStorageKey(), kDeep);
  EXPECT_FALSE(storage.read(page));
  EXPECT_EQ(log.find("readFail").size(), 1u);
  std::string field = tern::string_utils::urlEncode(tern::base64::encode(kDeep));
  EXPECT_EQ(velora::ApiInfoHelper::getApiInfo(page + "?api-info=" + field), "");
  EXPECT_EQ(log.find("exception", "Velora/api_info").size(), 1u);
}

TEST(Hardening, LineBreaksInTheUserAgentNeverReachTheWire) {
  OriginServer origin;
  velora::UserAgentHelper::getInstance().setUserAgent("Evil/1.0\r\nX-Injected: 1");
  std::string id = startPrefetch(origin.url("/headers"), {});
  ASSERT_TRUE(velora_test::waitFor([&] { return origin.count("/headers") == 1; }));
  auto seen = nlohmann::json::parse(velora_test::fetch(origin.url("/__seen?path=/headers")).body);
  EXPECT_FALSE(seen.contains("x-injected"));
  EXPECT_NE(seen.value("user-agent", ""), "Evil/1.0");
  EXPECT_EQ(seen["accept-language"], "zh-CN,zh;q=0.9,en-CN;q=0.8,en-US;q=0.7,en;q=0.6;");
  velora::PrefetchNetwork::removePrefetch(id);
  velora::UserAgentHelper::getInstance().setUserAgent("");
}
