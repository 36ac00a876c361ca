#include "tessera/tessera_config.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "tessera/host_config.h"
#include "test_support.h"

namespace {

class RecordingListener : public tessera::IOConfigListener {
 public:
  void onConfigUpdate(const std::string& ns,
                      const std::map<std::string, std::string>& configs) override {
    std::lock_guard<std::mutex> lock(mutex);
    updates.emplace_back(ns, configs);
  }
  void onConfigChange(const std::string&, const std::string&, const std::string&) override {}
  void onCustomConfigChange(const std::string&, const std::string&) override {}

  size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return updates.size();
  }

  std::mutex mutex;
  std::vector<std::pair<std::string, std::map<std::string, std::string>>> updates;
};

}  // namespace

TEST(TesseraConfig, ValuesComeFromTheFileAndNonTextValuesKeepTheirJson) {
  velora_test::TempDir dir;
  velora_test::writeFile(dir.file("config.json"),
                         R"({"ns": {"enable": "true", "whiteList": ["a", "b"], "n": 3}})");
  tessera::useConfigFile(dir.file("config.json"));
  auto values = tessera::getITesseraConfig()->getConfigs("ns");
  EXPECT_EQ(values["enable"], "true");
  EXPECT_EQ(values["whiteList"], R"(["a","b"])");
  EXPECT_EQ(values["n"], "3");
  EXPECT_TRUE(tessera::getITesseraConfig()->getConfigs("other").empty());
}

TEST(TesseraConfig, ChangesReachListenersOfChangedNamespacesOnly) {
  velora_test::TempDir dir;
  std::string path = dir.file("config.json");
  velora_test::writeFile(path, R"({"a": {"k": "1"}, "b": {"k": "1"}})");
  tessera::useConfigFile(path);
  auto onA = std::make_shared<RecordingListener>();
  auto onB = std::make_shared<RecordingListener>();
  tessera::getITesseraConfig()->registerListener("a", onA);
  tessera::getITesseraConfig()->registerListener("b", onB);

  velora_test::writeFile(path, R"({"a": {"k": "2"}, "b": {"k": "1"}})");
  ASSERT_TRUE(velora_test::waitFor([&] { return onA->count() == 1; }));
  EXPECT_EQ(onA->updates[0].second.at("k"), "2");
  EXPECT_EQ(tessera::getITesseraConfig()->getConfigs("a")["k"], "2");

  // A removed namespace is delivered as empty.
  velora_test::writeFile(path, R"({"a": {"k": "2"}})");
  ASSERT_TRUE(velora_test::waitFor([&] { return onB->count() == 1; }));
  EXPECT_TRUE(onB->updates[0].second.empty());
  EXPECT_EQ(onA->count(), 1u);
}

TEST(TesseraConfig, MalformedFileIsReportedAndThePreviousValuesStay) {
  velora_test::TempDir dir;
  std::string path = dir.file("config.json");
  velora_test::writeFile(path, R"({"a": {"k": "1"}})");
  tessera::useConfigFile(path);
  auto listener = std::make_shared<RecordingListener>();
  tessera::getITesseraConfig()->registerListener("a", listener);
  velora_test::HilogCapture hilog;
  for (const char* broken : {"{not json", "[1, 2]", R"({"a": "flat"})"}) {
    velora_test::writeFile(path, broken);
    ASSERT_TRUE(velora_test::waitFor([&] { return hilog.contains("malformed configuration"); }))
        << broken;
    EXPECT_EQ(tessera::getITesseraConfig()->getConfigs("a")["k"], "1");
  }
  EXPECT_EQ(listener->count(), 0u);
}
