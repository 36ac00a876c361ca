// The SSR ability as the ability framework reaches it: by its exported
// symbols, through synchronous calls.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "first_chunk/first_chunk_handler.h"
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/first_chunk_storage.h"
#include "gantry_ssr/host_config.h"
#include "gantry_ssr/ssr_service.h"
#include "omni/ability.h"
#include "omni/ability_registry.h"
#include "omni_ability/api_info_helper.h"
#include "origin_server.h"
#include "tern/cache_service.h"
#include "tern/singleton.h"
#include "tern/time_utils.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"

using velora::FirstChunkStorage;
using velora_test::OriginServer;

namespace {

class SsrAbility : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(omni::AbilityRegistry::loadAbility("", "SSRAbility"));
    adapter_ = omni::AbilityAdapter::create("velora");
  }
  void TearDown() override {
    gantry_ssr::setRules({});
    tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(false);
  }

  omni::ExecuteResult call(const std::string& api,
                           const std::string& pageUrl,
                           nlohmann::json data = nlohmann::json::object()) {
    auto context = std::make_shared<omni::AbilityContext>();
    if (!pageUrl.empty())
      context->setDataToUserDataMap(velora::kPageUrlKey, pageUrl);
    return adapter_->syncCall("SSRAbility", api, context, omni::AbilityData(std::move(data)));
  }

  std::shared_ptr<omni::AbilityAdapter> adapter_;
};

}  // namespace

TEST_F(SsrAbility, EveryOperationRefusesAnEmptyUrlAndTouchesNothing) {
  tide::LogCapture log;
  for (const auto& result :
       {call("preloadFirstChunk", "", {{"url", ""}}),
        call("setFirstChunkCache", "", {{"html", "<p>"}}), call("removeFirstChunkCache", "")}) {
    EXPECT_FALSE(result.isSuccess());
    EXPECT_EQ(result.getCode(), "INVALID_PARAM");
    EXPECT_EQ(result.getMessage(), "url empty");
    auto formatted = result.toFormattedData().getAnyMapData();
    EXPECT_EQ(formatted["type"], "error");
    EXPECT_EQ(formatted["msg"], "url empty");
  }
  EXPECT_TRUE(log.find("construct", "Velora/first_chunk_storage").empty());

  // Parameters of the wrong type and unknown APIs never reach the ability.
  EXPECT_EQ(call("setFirstChunkCache", "https://h.example/p", {{"html", 5}}).getCode(),
            "INVALID_PARAM");
  EXPECT_EQ(call("noSuchApi", "https://h.example/p").getCode(), "NOT_SUPPORTED");
  EXPECT_TRUE(call("prerender", "").isSuccess());
}

TEST_F(SsrAbility, SetAndRemoveManageThePageRecords) {
  const std::string page = "https://h.example/set?fcc_match_query=id&id=4";
  auto set = call("setFirstChunkCache", page, {{"html", "<h1>cached</h1>"}});
  ASSERT_TRUE(set.isSuccess()) << set.getMessage();
  auto stored = FirstChunkStorage(page).read(page);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->getHtml(), "<h1>cached</h1>");
  EXPECT_EQ(stored->getRule(), "id");
  EXPECT_EQ(stored->getVersion(), "0");
  EXPECT_NEAR(stored->getExpiredTime(),
              tern::currentTimeMillis() + velora::FirstChunkHandler::kDefaultLifetimeMs, 5000);
  // Another id is another record.
  EXPECT_FALSE(FirstChunkStorage("https://h.example/set?fcc_match_query=id&id=5")
                   .read("https://h.example/set?fcc_match_query=id&id=5"));

  const int64_t expiry = tern::currentTimeMillis() + 5000;
  ASSERT_TRUE(call("setFirstChunkCache", page,
                   {{"html", "<h1>v2</h1>"}, {"version", "2"}, {"expireTime", expiry}})
                  .isSuccess());
  stored = FirstChunkStorage(page).read(page);
  EXPECT_EQ(stored->getVersion(), "2");
  EXPECT_EQ(stored->getExpiredTime(), static_cast<double>(expiry));

  auto empty = call("setFirstChunkCache", page, {{"html", ""}});
  EXPECT_FALSE(empty.isSuccess());
  EXPECT_EQ(empty.getMessage(), "write fail");

  ASSERT_TRUE(call("removeFirstChunkCache", page).isSuccess());
  EXPECT_FALSE(FirstChunkStorage(page).read(page));
}

TEST_F(SsrAbility, PreloadFetchesTheFirstChunkOnlyWhenNeeded) {
  OriginServer origin;
  gantry_ssr::setRules({origin.url("/fcc/")});
  tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(true);
  const std::string page = origin.url("/fcc/warm?wait=50&delay=2000");

  tide::LogCapture log;
  auto fetched = call("preloadFirstChunk", "", {{"url", page}, {"method", "GET"}});
  ASSERT_TRUE(fetched.isSuccess()) << fetched.getMessage();
  EXPECT_EQ(fetched.getData()["status"], 200);
  EXPECT_EQ(fetched.getData()["stored"], true);
  EXPECT_EQ(origin.count("/fcc/warm"), 1);
  auto stored = FirstChunkStorage(page).read(page);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->getHtml().size() - stored->getHtml().rfind(velora::FirstChunkHandler::kMarker),
            velora::FirstChunkHandler::kMarkerLength);
  // The preload's prefetch is not left behind for a page that never comes.
  ASSERT_TRUE(velora_test::waitFor([&] {
    auto removed = log.find("removePrefetch");
    return !removed.empty() && removed.back()["fields"]["removed"] == true;
  }));

  // Fresh record: nothing fetched; forced: fetched again.
  EXPECT_TRUE(call("preloadFirstChunk", "", {{"url", page}}).isSuccess());
  EXPECT_EQ(origin.count("/fcc/warm"), 1);
  EXPECT_TRUE(call("preloadFirstChunk", "", {{"url", page}, {"forceUpdate", true}}).isSuccess());
  EXPECT_EQ(origin.count("/fcc/warm"), 2);

  // A failed fetch answers an error.
  auto failed =
      call("preloadFirstChunk", "",
           {{"url", "http://127.0.0.1:" + std::to_string(velora_test::refusedPort()) + "/fcc/x"}});
  EXPECT_FALSE(failed.isSuccess());
}

TEST_F(SsrAbility, PreloadReportsTheServersStatusNotTheStoredChunks) {
  OriginServer origin;
  gantry_ssr::setRules({origin.url("/status/"), origin.url("/fcc/")});
  tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(true);
  const std::string page = origin.url("/status/503");
  ASSERT_TRUE(call("setFirstChunkCache", page, {{"html", "<p>stored</p>"}}).isSuccess());
  auto forced = call("preloadFirstChunk", "", {{"url", page}, {"forceUpdate", true}});
  ASSERT_TRUE(forced.isSuccess()) << forced.getMessage();
  EXPECT_EQ(forced.getData()["status"], 503);
  EXPECT_EQ(forced.getStatusCode(), 503);
}
