// GET requests answered from offline packages through the module, with the
// network as the fallback.
#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "analytics/host_config.h"
#include "arkweb_host/web_component.h"
#include "bound_page.h"
#include "hilog/log.h"
#include "origin_server.h"
#include "scheme/page_binding.h"
#include "strata/host_config.h"
#include "strata/strata_core.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"
#include "transport_param.h"
#include "web_request/web_request.h"

namespace fs = std::filesystem;
using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using velora_test::OriginServer;

namespace {

class OfflineCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    StrataCore::usePackagesDir(packages_.path());
    web_ = arkweb_host::WebComponent::create("page");
    auto info = std::make_shared<velora::WebInfo>();
    info->webTag = "page";
    velora::PageBinding::init(info);
    velora::PageBinding::attach("page");
  }
  void TearDown() override { web_->destroy(); }

  // Installs a package serving `body` for each URL, with `headers`.
  void install(const std::vector<std::string>& urls,
               const std::string& body,
               const nlohmann::json& headers = {{"Content-Type", "text/css"}}) {
    fs::path dir = fs::path(sources_.path()) / ("p" + std::to_string(++packages));
    fs::create_directories(dir);
    nlohmann::json manifest = {
        {"id", dir.filename().string()}, {"version", "1"}, {"resources", nlohmann::json::array()}};
    for (size_t i = 0; i < urls.size(); ++i) {
      std::string file = "f" + std::to_string(i);
      std::ofstream(dir / file, std::ios::binary) << body;
      manifest["resources"].push_back({{"url", urls[i]}, {"file", file}, {"headers", headers}});
    }
    std::ofstream(dir / "manifest.json") << manifest.dump();
    std::string error;
    ASSERT_TRUE(StrataCore::PackageManager::install(dir.string(), &error)) << error;
  }

  LoadResult load(LoadOptions options) { return web_->loadAndWait(std::move(options)); }

  std::vector<std::string> valuesOf(const LoadResult& result, const std::string& name) {
    std::vector<std::string> values;
    for (const auto& [key, value] : result.headers) {
      if (key == name)
        values.push_back(value);
    }
    return values;
  }

  int packages = 0;
  velora_test::TempDir packages_;
  velora_test::TempDir sources_;
  std::shared_ptr<arkweb_host::WebComponent> web_;
};

// Packages answer for https pages as for http ones, and misses go out over
// the page's own transport.
class OfflineCacheOver : public OfflineCacheTest,
                         public ::testing::WithParamInterface<velora_test::Transport> {};

}  // namespace

TEST_P(OfflineCacheOver, AHitIsServedFromThePackageWithoutTouchingTheNetwork) {
  OriginServer origin(GetParam());
  std::string body = velora_test::patternBytes(5, 50 * 1024);
  install({origin.url("/site/assets/style.css")}, body);
  tide::LogCapture log;
  LoadResult result = load(origin.url("/site/assets/style.css"));
  EXPECT_TRUE(result.intercepted);
  EXPECT_EQ(result.status, 200);
  EXPECT_TRUE(result.body == body);
  EXPECT_EQ(valuesOf(result, "Content-Type"), (std::vector<std::string>{"text/css"}));
  EXPECT_EQ(valuesOf(result, "Access-Control-Allow-Origin"), (std::vector<std::string>{"*"}));
  EXPECT_EQ(origin.count("/site/assets/style.css"), 0);
  EXPECT_EQ(log.find("strataSuccess").size(), 1u);
}

TEST_F(OfflineCacheTest, AllowOriginIsAddedOnlyWhenTheExactNameIsMissing) {
  install({"http://127.0.0.1:1/own"}, "a", {{"Access-Control-Allow-Origin", "https://a.example"}});
  install({"http://127.0.0.1:1/lower"}, "b",
          {{"access-control-allow-origin", "https://b.example"}});
  LoadResult own = load(LoadOptions("http://127.0.0.1:1/own"));
  EXPECT_EQ(valuesOf(own, "Access-Control-Allow-Origin"),
            (std::vector<std::string>{"https://a.example"}));
  LoadResult lower = load(LoadOptions("http://127.0.0.1:1/lower"));
  EXPECT_EQ(valuesOf(lower, "access-control-allow-origin"),
            (std::vector<std::string>{"https://b.example"}));
  EXPECT_EQ(valuesOf(lower, "Access-Control-Allow-Origin"), (std::vector<std::string>{"*"}));
}

TEST_P(OfflineCacheOver, MissesCorruptPackagesAndOtherMethodsGoToTheNetwork) {
  OriginServer origin(GetParam());
  std::ofstream(packages_.path() + "/corrupt.zip") << "not a zip at all";
  fs::create_directories(packages_.path() + "/badjson");
  std::ofstream(packages_.path() + "/badjson/manifest.json") << "{\"id\": ";
  StrataCore::PackageManager::rescan();
  install({origin.url("/echo")}, "cached echo");
  tide::LogCapture log;

  LoadResult miss = load(origin.url("/bytes/100"));
  EXPECT_EQ(miss.body, velora_test::patternBytes(0, 100));
  EXPECT_EQ(log.find("strataFail").size(), 1u);

  LoadOptions post(origin.url("/echo"));
  post.method = "POST";
  post.body = "x";
  LoadResult posted = load(post);
  EXPECT_NE(posted.body, "cached echo");
  EXPECT_EQ(origin.count("/echo"), 1);
  EXPECT_EQ(log.find("strataStart").size(), 1u);  // only the GET asked the packages
}

TEST_F(OfflineCacheTest, AGetWithABodyIsSentWithItWithoutAskingThePackages) {
  OriginServer origin;
  install({origin.url("/echo?raw=1")}, "cached echo");
  tide::LogCapture log;
  // Lookups wait: a request that asked the packages would wait with them,
  // and set up its body on their thread once they answer.
  StrataCore::pauseLookups();
  LoadOptions get(origin.url("/echo?raw=1"));
  get.body = "payload";
  velora_test::PendingLoad load(*web_, get);
  bool ended = load.waitForEnd(std::chrono::seconds(5));
  StrataCore::resumeLookups();
  ASSERT_TRUE(ended) << "the load waited for the package lookups";
  EXPECT_EQ(load.result().body, "payload");
  EXPECT_EQ(origin.count("/echo"), 1);
  EXPECT_TRUE(log.find("strataStart").empty());
}

TEST_F(OfflineCacheTest, ARequestGoneBeforeTheLookupEndsProducesNothing) {
  OriginServer origin;
  install({origin.url("/site/index.html")}, "packaged");
  velora_test::HilogCapture hilog;
  tide::LogCapture log;
  StrataCore::pauseLookups();
  LoadOptions options(origin.url("/site/index.html"));
  options.cancelAfterMs = 50;
  LoadResult result = load(options);
  EXPECT_EQ(result.error, ARKWEB_ERR_ABORTED);
  EXPECT_EQ(log.find("~WebRequest").size(), 1u);
  StrataCore::resumeLookups();
  // The lookup still runs, but nobody is there to answer or to fall back.
  LoadResult next = load(origin.url("/bytes/1"));
  EXPECT_EQ(next.bodySize, 1u);
  EXPECT_EQ(origin.count("/site/index.html"), 0);
  EXPECT_TRUE(log.find("strataSuccess").empty());
  EXPECT_FALSE(hilog.contains("ignored"));
}

TEST_F(OfflineCacheTest, AZipCutShortOnDiskSendsItsHitToTheNetwork) {
  OriginServer origin;
  const std::string url = origin.url("/bytes/100");
  const std::string manifest =
      nlohmann::json({{"id", "zipped"}, {"resources", {{{"url", url}, {"file", "b"}}}}}).dump();
  const std::string source = sources_.path() + "/zipped.zip";
  int error = 0;
  zip_t* archive = zip_open(source.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  zip_file_add(archive, "manifest.json",
               zip_source_buffer(archive, manifest.data(), manifest.size(), 0), 0);
  zip_file_add(archive, "b", zip_source_buffer(archive, "packaged", 8, 0), 0);
  ASSERT_EQ(zip_close(archive), 0);
  std::string why;
  ASSERT_TRUE(StrataCore::PackageManager::install(source, &why)) << why;
  EXPECT_EQ(load(url).body, "packaged");

  velora_test::HilogCapture hilog;
  const std::string installed = packages_.path() + "/zipped.zip";
  fs::resize_file(installed, fs::file_size(installed) / 2);
  LoadResult cut = load(url);
  EXPECT_EQ(cut.status, 200);
  EXPECT_EQ(cut.body, velora_test::patternBytes(0, 100));
  EXPECT_EQ(origin.count("/bytes/100"), 1);
  EXPECT_TRUE(hilog.contains("cannot read b from package zipped"));
}

TEST(RequestStatistics, TextsListEntriesInKeyOrderWithoutEscaping) {
  velora_test::TempDir dir;
  alarmUseStatsFile(dir.file("stats.jsonl"));
  auto info = std::make_shared<velora::WebInfo>();
  info->webTag = "p";
  auto request = std::make_shared<velora::WebRequest>(info, nullptr, nullptr);
  request->reportPrefetchStats("https://h/a?x=1#L#y*F*z", 1);
  request->reportPrefetchStats("U", 0);
  request->reportNetError("U", -2, "timeout");
  request->reportNetError("U", 7, "");
  std::ifstream in(dir.file("stats.jsonl"));
  std::vector<std::pair<std::string, std::string>> points;
  for (std::string line; std::getline(in, line);) {
    auto point = nlohmann::json::parse(line);
    EXPECT_EQ(point["module"], "velora");
    points.emplace_back(point["point"], point["text"]);
  }
  ASSERT_EQ(points.size(), 4u);
  EXPECT_EQ(points[0], std::make_pair(std::string("prefetch"),
                                      std::string("type*F*1#L#url*F*https://h/a?x=1#L#y*F*z#L#")));
  EXPECT_EQ(points[1].second, "type*F*0#L#url*F*U#L#");
  EXPECT_EQ(points[2], std::make_pair(std::string("netError"),
                                      std::string("code*F*-2#L#msg*F*timeout#L#url*F*U#L#")));
  EXPECT_EQ(points[3].second, "code*F*7#L#msg*F*#L#url*F*U#L#");
}

VELORA_OVER_EACH_TRANSPORT(OfflineCacheOver);
