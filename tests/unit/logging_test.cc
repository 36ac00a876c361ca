// hilog formatting, TideLogger entries and analytics points, as their
// readers (operators, log pipelines) see them.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "analytics/alarm_commit.h"
#include "hilog/log.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"

namespace {

std::vector<nlohmann::json> readJsonLines(const std::string& path) {
  std::vector<nlohmann::json> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);)
    lines.push_back(nlohmann::json::parse(line));
  return lines;
}

}  // namespace

VELORA_CHILD(LogToFiles) {
  tide::Log::build(tide::kInfo, "Velora/web").event("nativeInit", "page1").key("n").value(1).done();
  tide::Log::build(tide::kError, "Velora/Network")
      .event("finished", "[page1|1]")
      .parentId("page1")
      .key("statusCode")
      .value(-7)
      .error("timeout")
      .done();
  alarmCommitSuccess2("velora", "netError", "code*F*-7#L#");
  OH_LOG_Print(LOG_APP, LOG_INFO, 0, "Velora/web", "to the hilog file %{public}s", "ok");
  return 0;
}

TEST(Hilog, PrivacyFlagsDecideWhatIsPrinted) {
  velora_test::HilogCapture hilog;
  OH_LOG_Print(LOG_APP, LOG_INFO, 0, "T", "a=%{public}s b=%{private}s c=%s d=%{public}d e=%d 100%%",
               "shown", "secret", "unflagged", 42, 7);
  ASSERT_EQ(hilog.lines().size(), 1u);
  EXPECT_EQ(hilog.lines()[0], "T: a=shown b=<private> c=<private> d=42 e=<private> 100%");
}

TEST(Hilog, NumbersWidthsAndLongStringsFormatLikePrintf) {
  velora_test::HilogCapture hilog;
  std::string longText(3000, 'x');
  OH_LOG_Print(LOG_APP, LOG_WARN, 0, "T",
               "%{public}05d|%{public}-4s|%{public}.2f|%{public}llu|%{public}s", 42, "ab", 3.14159,
               18446744073709551615ull, longText.c_str());
  ASSERT_EQ(hilog.lines().size(), 1u);
  EXPECT_EQ(hilog.lines()[0], "T: 00042|ab  |3.14|18446744073709551615|" + longText);
}

TEST(Hilog, LevelFilterAndTagLengthFollowTheDevice) {
  velora_test::HilogCapture hilog;
  OH_LOG_SetMinLogLevel(LOG_WARN);
  OH_LOG_Print(LOG_APP, LOG_INFO, 0, "T", "dropped");
  EXPECT_TRUE(OH_LOG_Print(LOG_APP, LOG_ERROR, 0, std::string(40, 't').c_str(), "kept") > 0);
  OH_LOG_SetMinLogLevel(LOG_INFO);
  ASSERT_EQ(hilog.lines().size(), 1u);
  EXPECT_EQ(hilog.lines()[0], std::string(31, 't') + ": kept");
}

TEST(TideLogger, EntryCarriesTypedFieldsUnderFieldsAndOptionalPartsOnlyWhenSet) {
  tide::LogCapture capture;
  tide::Log::build(tide::kInfo, "Velora/web")
      .event("request", "[p|1]")
      .key("id")
      .value("field named id")
      .key("flag")
      .value(true)
      .key("count")
      .value(static_cast<uint64_t>(1) << 40)
      .key("ratio")
      .value(2.5f)
      .key("header")
      .value(nlohmann::json{{"A", "b"}})
      .key("bad")
      .value(std::string("\xff\xfe", 2))
      .done();
  tide::Log::build(tide::kError, "Velora/web").event("failed").parentId("p").error("why").done();
  auto entries = capture.entries();
  ASSERT_EQ(entries.size(), 2u);
  const auto& first = entries[0];
  EXPECT_EQ(first["id"], "[p|1]");
  EXPECT_EQ(first["level"], 3);
  EXPECT_FALSE(first.contains("parentId"));
  EXPECT_FALSE(first.contains("error"));
  EXPECT_EQ(first["fields"]["id"], "field named id");
  EXPECT_EQ(first["fields"]["flag"], true);
  EXPECT_EQ(first["fields"]["count"], 1ull << 40);
  EXPECT_EQ(first["fields"]["ratio"], 2.5);
  EXPECT_EQ(first["fields"]["header"]["A"], "b");
  EXPECT_EQ(entries[1]["parentId"], "p");
  EXPECT_EQ(entries[1]["error"], "why");
  EXPECT_EQ(capture.find("failed", "Velora/web").size(), 1u);
}

TEST(TideLogger, FilesGetOneJsonLinePerEntryAndPoint) {
  velora_test::TempDir dir;
  ASSERT_EQ(velora_test::runChild("LogToFiles", {{"VELORA_LOG", dir.file("log.jsonl")},
                                                 {"VELORA_STATS", dir.file("stats.jsonl")},
                                                 {"VELORA_HILOG", dir.file("hilog.txt")}}),
            0);
  auto log = readJsonLines(dir.file("log.jsonl"));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0]["event"], "nativeInit");
  EXPECT_EQ(log[0]["fields"]["n"], 1);
  EXPECT_EQ(log[1]["level"], 1);
  EXPECT_EQ(log[1]["parentId"], "page1");
  EXPECT_EQ(log[1]["error"], "timeout");
  EXPECT_GT(log[1]["ts"].get<int64_t>(), 1600000000000);

  auto stats = readJsonLines(dir.file("stats.jsonl"));
  ASSERT_EQ(stats.size(), 1u);
  EXPECT_EQ(stats[0]["module"], "velora");
  EXPECT_EQ(stats[0]["point"], "netError");
  EXPECT_EQ(stats[0]["text"], "code*F*-7#L#");

  std::ifstream hilog(dir.file("hilog.txt"));
  std::string line;
  std::getline(hilog, line);
  EXPECT_NE(line.find(" I A00000/Velora/web: to the hilog file ok"), std::string::npos) << line;
}
