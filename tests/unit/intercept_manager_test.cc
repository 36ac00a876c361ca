#include "intercept/intercept_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "tern/cache_service.h"
#include "tern/executor_service.h"
#include "tessera/host_config.h"
#include "tessera/tessera_config.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"

using velora::InterceptManager;

namespace {

InterceptManager& manager() {
  return InterceptManager::getInstance();
}

std::shared_ptr<tern::ICacheService> store() {
  return tern::ICacheService::of("InterceptManager");
}

// Serves `configs` as the remote namespace. The first call runs init(); later
// ones reach the policy through the listener init() registered, as a remote
// update does.
void initWithRemote(velora_test::TempDir& dir, const nlohmann::json& configs) {
  std::string path = dir.file("config.json");
  velora_test::writeFile(path, nlohmann::json{{"velora_kpnet_intercept_config", configs}}.dump());
  tessera::useConfigFile(path);
  static const bool initialised = (manager().init(), true);
  (void)initialised;
}

}  // namespace

VELORA_CHILD(FreshPolicy) {
  InterceptManager& m = InterceptManager::getInstance();
  bool ok = m.isInterceptEnable() && !m.onlyMainHtml() && !m.isInterceptMimeType() &&
            !m.isInWhiteList("http://h/") && !m.hasWhiteMethods() && !m.isInWhiteMethod("GET") &&
            !m.isInRuntimeList("http://h/");
  // A first query on an empty store writes nothing.
  return ok && !tern::ICacheService::of("InterceptManager")->get("runtimeUrls") ? 0 : 1;
}

VELORA_CHILD(RuntimeAdd) {
  InterceptManager::getInstance().addUrlToRuntimeList("https://h/page");
  return 0;
}

VELORA_CHILD(RuntimeExpect) {
  InterceptManager& m = InterceptManager::getInstance();
  return m.isInRuntimeList("https://h/page?x=1") && !m.isInRuntimeList("https://h/other") ? 0 : 1;
}

TEST(InterceptPolicy, FreshProcessInterceptsEverythingAndHasEmptyLists) {
  EXPECT_EQ(velora_test::runChild("FreshPolicy"), 0);
}

TEST(InterceptPolicy, WhiteUrlsMatchAsSubstringsAndMethodsExactly) {
  manager().setWhiteUrlList({"/api/"});
  EXPECT_TRUE(manager().isInWhiteList("ws://h1/api/x"));
  EXPECT_TRUE(manager().isInWhiteList("ws://h2/v1/api/"));
  EXPECT_FALSE(manager().isInWhiteList("ws://h1/API/x"));
  manager().setWhiteUrlList({"nomatch", ""});
  EXPECT_TRUE(manager().isInWhiteList("anything"));  // an empty entry matches all
  manager().setWhiteUrlList({});
  EXPECT_FALSE(manager().isInWhiteList("anything"));

  manager().setWhiteMethods({"POST"});
  EXPECT_TRUE(manager().hasWhiteMethods());
  EXPECT_TRUE(manager().isInWhiteMethod("POST"));
  EXPECT_FALSE(manager().isInWhiteMethod("post"));
  EXPECT_FALSE(manager().isInWhiteMethod("POS"));
  manager().setWhiteMethods({});
  EXPECT_FALSE(manager().hasWhiteMethods());
}

TEST(InterceptRemoteConfig, SwitchesFollowExactlyLowerCaseTrueAndTheSavedCopyHasAllKeys) {
  velora_test::TempDir dir;
  initWithRemote(dir, {{"enable", "false"}});
  EXPECT_FALSE(manager().isInterceptEnable());
  auto saved = nlohmann::json::parse(store()->get("tessera_config").value());
  EXPECT_EQ(saved, (nlohmann::json{{"apiInfoAllowList", ""},
                                   {"enable", "false"},
                                   {"interceptMimeType", ""},
                                   {"methodList", ""},
                                   {"onlyMainHtml", ""},
                                   {"whiteList", ""}}));

  initWithRemote(dir,
                 {{"enable", "true"}, {"onlyMainHtml", "TRUE"}, {"interceptMimeType", "true"}});
  EXPECT_TRUE(manager().isInterceptEnable());
  EXPECT_FALSE(manager().onlyMainHtml());
  EXPECT_TRUE(manager().isInterceptMimeType());
  initWithRemote(dir, {{"enable", "TRUE"}});
  EXPECT_FALSE(manager().isInterceptEnable());
  EXPECT_TRUE(manager().isInterceptMimeType());  // absent keys leave switches as they are
}

TEST(InterceptRemoteConfig, ListsTakeStringElementsOfArraysOnly) {
  velora_test::TempDir dir;
  tide::LogCapture log;
  initWithRemote(
      dir, {{"enable", "true"}, {"whiteList", R"(["a", 1, "b"])"}, {"methodList", R"(["POST"])"}});
  EXPECT_TRUE(manager().isInWhiteList("xa"));
  EXPECT_TRUE(manager().isInWhiteList("xb"));
  EXPECT_FALSE(manager().isInWhiteList("x1"));
  EXPECT_TRUE(manager().isInWhiteMethod("POST"));
  auto logged = log.find("updateWhiteListConfig", "Velora/intercept_manager");
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0]["level"], 3);
  EXPECT_EQ(logged[0]["fields"]["config"], R"(["a", 1, "b"])");
  EXPECT_EQ(logged[0]["fields"]["enable"], "true");
  EXPECT_EQ(logged[0]["fields"]["from"], "remote");

  initWithRemote(dir, {{"whiteList", "{}"}, {"methodList", "[]"}});
  EXPECT_TRUE(manager().isInWhiteList("xa"));  // not an array: unchanged
  EXPECT_FALSE(manager().hasWhiteMethods());   // an empty array empties it

  log.clear();
  initWithRemote(dir, {{"whiteList", "[\"unterminated"}, {"methodList", "nope"}});
  EXPECT_TRUE(manager().isInWhiteList("xa"));
  auto failed = log.find("updateWhiteListConfig");
  ASSERT_EQ(failed.size(), 2u);
  EXPECT_EQ(failed[1]["level"], 2);
  EXPECT_FALSE(failed[1]["fields"]["what"].get<std::string>().empty());
  EXPECT_EQ(log.find("updateMethodConfig").size(), 2u);
}

TEST(InterceptRemoteConfig, SavedCopyAppliesWhenRemoteIsEmptyAndBrokenCopiesChangeNothing) {
  velora_test::TempDir dir;
  tide::LogCapture log;
  ASSERT_TRUE(store()->put("tessera_config",
                           R"({"enable":"false","whiteList":"[\"local\"]","methodList":5})"));
  velora_test::writeFile(dir.file("config.json"), "{}");
  tessera::useConfigFile(dir.file("config.json"));
  manager().init();
  tern::ExecutorService::of("Velora", TERN_HERE).waitIdle();
  EXPECT_FALSE(manager().isInterceptEnable());
  EXPECT_TRUE(manager().isInWhiteList("http://local/"));
  EXPECT_EQ(log.find("updateWhiteListConfig").at(0)["fields"]["from"], "local");

  log.clear();
  manager().setInterceptEnable(true);
  ASSERT_TRUE(store()->put("tessera_config", "{not json"));
  manager().updateTesseraConfigFromLocal();
  EXPECT_TRUE(manager().isInterceptEnable());
  auto failed = log.find("updateTesseraConfigFromLocal");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_FALSE(failed.at(0)["fields"]["what"].get<std::string>().empty());

  // Valid JSON that is no object has no members: nothing changes, nothing to log.
  log.clear();
  ASSERT_TRUE(store()->put("tessera_config", "[\"an array\"]"));
  manager().updateTesseraConfigFromLocal();
  EXPECT_TRUE(manager().isInterceptEnable());
  EXPECT_TRUE(manager().isInWhiteList("http://local/"));
  EXPECT_TRUE(log.find("updateTesseraConfigFromLocal").empty());
}

// In a process of its own: the configuration file and its watcher are
// process-wide, and other tests move them around.
VELORA_CHILD(RemoteUpdateWhileRunning) {
  velora_test::TempDir dir;
  initWithRemote(dir, {{"enable", "true"}});
  if (!manager().isInterceptEnable())
    return 1;
  velora_test::writeFile(
      dir.file("config.json"),
      R"({"velora_kpnet_intercept_config": {"enable": "false", "whiteList": "[\"late\"]"}})");
  if (!velora_test::waitFor([] { return !manager().isInterceptEnable(); },
                            std::chrono::seconds(15)))
    return 2;
  if (!manager().isInWhiteList("late"))
    return 3;
  return nlohmann::json::parse(store()->get("tessera_config").value())["enable"] == "false" ? 0 : 4;
}

TEST(InterceptRemoteConfig, RemoteUpdatesAreAppliedWhileRunning) {
  EXPECT_EQ(velora_test::runChild("RemoteUpdateWhileRunning"), 0);
}

TEST(RuntimeWhiteList, EntriesAreSubstringsAndAdditionsSkipCoveredUrls) {
  manager().addUrlToRuntimeList("ws://h1/p");
  manager().addUrlToRuntimeList("ws://h1/p?x=1");  // covered by ws://h1/p
  EXPECT_EQ(store()->get("runtimeUrls"), R"(["ws://h1/p"])");
  manager().addUrlToRuntimeList("ws://h1/");  // shorter: not covered, added
  EXPECT_EQ(store()->get("runtimeUrls"), R"(["ws://h1/p","ws://h1/"])");
  EXPECT_TRUE(manager().isInRuntimeList("ws://h1/other"));
  EXPECT_FALSE(manager().isInRuntimeList("ws://h2/"));
}

TEST(RuntimeWhiteList, PersistsAcrossProcesses) {
  ASSERT_EQ(velora_test::runChild("RuntimeAdd"), 0);
  EXPECT_EQ(velora_test::runChild("RuntimeExpect"), 0);
}

// The list is read once per process: a fresh one reads the broken value.
VELORA_CHILD(RuntimeBroken) {
  tide::LogCapture log;
  bool ok = manager().isInRuntimeList("xu1") && !manager().isInRuntimeList("xu2");
  auto failed = log.find("readRuntimeUrlsFail", "Velora/intercept_manager");
  ok = ok && failed.size() == 1 && !failed.at(0)["fields"]["what"].get<std::string>().empty();
  manager().addUrlToRuntimeList("u3");
  return ok && store()->get("runtimeUrls") == R"(["u1","u3"])" ? 0 : 1;
}

TEST(RuntimeWhiteList, BrokenStoredValueKeepsWhatWasReadAndIsOverwrittenByTheNextAddition) {
  ASSERT_TRUE(store()->put("runtimeUrls", R"(["u1", 5, "u2"])"));
  EXPECT_EQ(velora_test::runChild("RuntimeBroken"), 0);
}

TEST(InterceptRemoteConfig, ARequestSeesAWholeUpdateOrNone) {
  // Two configurations, each consistent: off with list "a", on with list "b".
  auto apply = [](bool on) {
    manager().updateTesseraConfig("remote", [on](const std::string& key) {
      if (key == "enable")
        return std::string(on ? "true" : "false");
      if (key == "whiteList")
        return std::string(on ? R"(["b"])" : R"(["a"])");
      return std::string();
    });
  };
  apply(true);
  std::atomic<bool> stop{false};
  std::atomic<int> mixed{0};
  std::thread reader([&] {
    while (!stop) {
      auto policy = manager().policy();
      if (policy->interceptEnable == policy->isInWhiteList("a"))
        ++mixed;
    }
  });
  for (int i = 0; i < 2000; ++i)
    apply(i % 2 == 0);
  stop = true;
  reader.join();
  EXPECT_EQ(mixed, 0);
}
