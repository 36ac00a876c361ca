// The first-chunk cache underneath the SSR path: records in the store, and
// the handler's splice of the live body after a served chunk.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "first_chunk/first_chunk_context.h"
#include "first_chunk/first_chunk_handler.h"
#include "first_chunk/first_chunk_storage.h"
#include "network/ssr_chunked_cache_request_callback.h"
#include "tern/cache_service.h"
#include "tern/executor_service.h"
#include "tern/host_config.h"
#include "tern/time_utils.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"

using velora::FirstChunkContext;
using velora::FirstChunkHandler;
using velora::FirstChunkStorage;
using velora::HeaderMultimap;

namespace {

const std::string kMarker = FirstChunkHandler::kMarker;

std::string firstChunk(const std::string& version) {
  return "<html><head><title>v" + version + "</title></head><body><h1>shell " + version + "</h1>" +
         kMarker;
}
const std::string kRest = "<main>rendered for you</main></body></html>";

std::shared_ptr<FirstChunkContext> record(const std::string& url,
                                          const std::string& html,
                                          const std::string& version = "1",
                                          const std::string& rule = "",
                                          double expiredTime = 0) {
  auto context = std::make_shared<FirstChunkContext>();
  context->setEnable(true);
  context->setUrl(url);
  context->setHtml(html);
  context->setVersion(version);
  context->setRule(rule);
  context->setExpiredTime(expiredTime ? expiredTime : tern::currentTimeMillis() + 3600000.0);
  return context;
}

std::optional<std::string> storedValue(const std::string& key) {
  return tern::ICacheService::of("VeloraFirstChunk")->get(key);
}

// What the request's listener (and so the engine) receives.
class Recorder : public gantry_ssr::SsrListener, public velora::SSRChunkedCacheRequestCallBack {
 public:
  void onResponse(std::shared_ptr<gantry_ssr::SsrRequest>,
                  int statusCode,
                  const HeaderMultimap& headers) override {
    statuses.push_back(statusCode);
    this->headers = headers;
  }
  void onReceiveData(std::shared_ptr<gantry_ssr::SsrRequest>, const std::string& data) override {
    body += data;
  }
  void onError(std::shared_ptr<gantry_ssr::SsrRequest>,
               std::shared_ptr<gantry_ssr::SsrResponse>) override {
    ++errors;
  }
  void onFinish(std::shared_ptr<gantry_ssr::SsrRequest>) override { ++finishes; }
  void onNetResponse(int statusCode, const HeaderMultimap&) override {
    netStatuses.push_back(statusCode);
  }

  std::vector<int> statuses;
  std::vector<int> netStatuses;
  HeaderMultimap headers;
  std::string body;
  int errors = 0;
  int finishes = 0;
};

HeaderMultimap fccHeaders(const std::string& version, const std::string& enable = "true") {
  return {{"Content-Type", {"text/html"}}, {"fcc-enable", {enable}}, {"fcc-version", {version}}};
}

// One SSR request through a handler: the live response arrives in `pieces`.
std::shared_ptr<Recorder> visit(const std::string& url,
                                const HeaderMultimap& responseHeaders,
                                const std::vector<std::string>& pieces) {
  auto recorder = std::make_shared<Recorder>();
  auto handler = std::make_shared<FirstChunkHandler>(recorder);
  auto request = std::make_shared<gantry_ssr::SsrRequest>(url);
  handler->onSendRequest(request);
  handler->onResponse(request, 200, responseHeaders);
  for (const auto& piece : pieces)
    handler->onReceiveData(request, piece);
  handler->onFinish(request);
  // The store is written in the background.
  tern::ExecutorService::of("Velora", TERN_HERE).waitIdle();
  return recorder;
}

std::vector<std::string> split(const std::string& text, std::vector<size_t> cuts) {
  std::vector<std::string> pieces;
  size_t start = 0;
  cuts.push_back(text.size());
  for (size_t cut : cuts) {
    pieces.push_back(text.substr(start, cut - start));
    start = cut;
  }
  return pieces;
}

// The splits worth trying: every single cut, and every pair of cuts inside
// the marker (which then spans three pieces).
std::vector<std::vector<size_t>> interestingCuts(const std::string& live) {
  std::vector<std::vector<size_t>> cuts;
  for (size_t cut = 1; cut < live.size(); ++cut)
    cuts.push_back({cut});
  size_t marker = live.find(kMarker);
  for (size_t a = marker + 1; a < marker + kMarker.size(); ++a) {
    for (size_t b = a + 1; b < marker + kMarker.size(); ++b)
      cuts.push_back({a, b});
  }
  std::vector<size_t> bytes;
  for (size_t cut = 1; cut < live.size(); ++cut)
    bytes.push_back(cut);
  cuts.push_back(bytes);
  return cuts;
}

}  // namespace

TEST(FirstChunkStorage, KeysKeepOnlyTheParameterTheRuleNames) {
  EXPECT_EQ(FirstChunkStorage("https://h.example/p?fcc_match_query=id&id=7&t=1").getStorageKey(),
            "https://h.example/p?id=7");
  EXPECT_EQ(FirstChunkStorage("https://h.example/p?fcc_match_query=id&t=1").getStorageKey(),
            "https://h.example/p");
  EXPECT_EQ(FirstChunkStorage("https://h.example/p?fcc_match_query=a,b&a=1&b=2").getStorageKey(),
            "https://h.example/p");
  EXPECT_EQ(FirstChunkStorage("https://h.example/p?x=1#top").getStorageKey(),
            "https://h.example/p#top");

  tide::LogCapture log;
  FirstChunkStorage invalid("not a url");
  EXPECT_EQ(invalid.getStorageKey(), "");
  EXPECT_FALSE(invalid.write(record("not a url", "<p>")));
  invalid.remove();
  EXPECT_EQ(log.find("invalidUrl", "Velora/first_chunk_storage").size(), 1u);
  EXPECT_TRUE(log.find("remove").empty());
}

TEST(FirstChunkStorage, RecordsOfSeveralRulesShareAKeyAndReadChecksEachRule) {
  const std::string page = "https://h.example/list?fcc_match_query=a,b&a=1&b=2";
  FirstChunkStorage storage(page);
  ASSERT_TRUE(storage.write(record(page, "<p>ab", "1", "a,b")));
  ASSERT_TRUE(storage.write(record("https://h.example/list?c=9", "<p>c", "1", "c")));

  auto both = storage.read("https://h.example/list?a=1&b=2&z=0");
  ASSERT_TRUE(both);
  EXPECT_EQ(both->getHtml(), "<p>ab");
  // "a,b" no longer matches; "c" does.
  auto other = storage.read("https://h.example/list?a=1&b=3&c=9");
  ASSERT_TRUE(other);
  EXPECT_EQ(other->getHtml(), "<p>c");
  EXPECT_FALSE(storage.read("https://h.example/list?a=1&b=3"));

  // The server disabling one rule removes that record alone.
  auto disabled = record(page, "<p>ab", "1", "a,b");
  disabled->setEnable(false);
  ASSERT_TRUE(storage.write(disabled));
  nlohmann::json stored = nlohmann::json::parse(*storedValue(storage.getStorageKey()));
  EXPECT_EQ(stored.size(), 1u);
  EXPECT_TRUE(stored.contains("c"));
  EXPECT_EQ(stored["c"]["html-byte-size"], 4u);
  EXPECT_EQ(stored["c"]["fcc-url-query-rule"], "c");

  // Without html nothing is written.
  EXPECT_FALSE(storage.write(record(page, "")));
  storage.remove();
  EXPECT_FALSE(storedValue(storage.getStorageKey()));
}

TEST(FirstChunkStorage, ReadTriesRulesInOrderAndSaysWhyNothingCame) {
  const std::string page = "https://h.example/words?a=1";
  FirstChunkStorage storage(page);
  auto store = tern::ICacheService::of("VeloraFirstChunk");
  tide::LogCapture log;
  auto lastMsg = [&log] { return log.find("read").back()["fields"].value("msg", std::string()); };

  EXPECT_FALSE(storage.read(page));
  EXPECT_EQ(lastMsg(), "storage key not found");
  store->put(storage.getStorageKey(), "{}");
  EXPECT_FALSE(storage.read(page));
  EXPECT_EQ(lastMsg(), "specified context empty");

  // "a" matches first but is unusable: read stops there, "b" is not tried.
  auto recordJson = [](const std::string& html, const std::string& rule, const std::string& url) {
    return nlohmann::json{{"fcc-enable", true},
                          {"fcc-html", html},
                          {"fcc-url-query-rule", rule},
                          {"fcc-version", "1"},
                          {"html-byte-size", html.size()},
                          {"fcc-url", url},
                          {"fcc-expire-time", 1e15}};
  };
  nlohmann::json root = {{"a", recordJson("", "a", "https://h.example/words?a=1")},
                         {"b", recordJson("<p>b", "b", "https://h.example/words?a=1")}};
  store->put(storage.getStorageKey(), root.dump());
  EXPECT_FALSE(storage.read(page));
  EXPECT_EQ(lastMsg(), "context not valid");

  root.erase("a");
  root["b"]["fcc-url"] = "https://h.example/words?b=2";
  store->put(storage.getStorageKey(), root.dump());
  EXPECT_FALSE(storage.read(page));
  EXPECT_EQ(log.find("read").at(log.find("read").size() - 2)["fields"]["msg"], "query not match");
  EXPECT_EQ(lastMsg(), "context not found");

  // Bytes that are not ASCII are stored as they are.
  const std::string html = "<p>caf\xc3\xa9 \xe4\xb8\xad</p>";
  store->remove(storage.getStorageKey());
  ASSERT_TRUE(storage.write(record(page, html)));
  EXPECT_NE(storedValue(storage.getStorageKey())->find(html), std::string::npos);
  EXPECT_EQ(storage.read(page)->getHtml(), html);
}

TEST(FirstChunkStorage, BrokenOrUnusableRecordsAreNeverServed) {
  const std::string page = "https://h.example/broken";
  FirstChunkStorage storage(page);
  auto store = tern::ICacheService::of("VeloraFirstChunk");
  tide::LogCapture log;

  // Disabled or empty records.
  store->put(
      storage.getStorageKey(),
      R"({"":{"fcc-enable":false,"fcc-html":"<p>","fcc-url-query-rule":"","fcc-version":"1",)"
      R"("html-byte-size":3,"fcc-url":"https://h.example/broken","fcc-expire-time":1e15}})");
  EXPECT_FALSE(storage.read(page));
  store->put(storage.getStorageKey(), "{}");
  EXPECT_FALSE(storage.read(page));

  // Corrupt values (a crash, an older run, another process): logged, never
  // thrown, and the next good write replaces them.
  for (std::string corrupt :
       {"{not json", "[1,2]", "5", "\xff\xfe{\"\":1}", R"({"":{"fcc-url":7}})"}) {
    log.clear();
    store->put(storage.getStorageKey(), corrupt);
    EXPECT_FALSE(storage.read(page)) << corrupt;
    EXPECT_EQ(log.find("readFail", "Velora/first_chunk_storage").size(), 1u) << corrupt;
    EXPECT_TRUE(storage.write(record(page, "<p>good"))) << corrupt;
    ASSERT_TRUE(storage.read(page)) << corrupt;
    EXPECT_EQ(storage.read(page)->getHtml(), "<p>good");
    EXPECT_TRUE(log.find("writeFail").empty());
  }
  // One broken record does not hide a good one under the same key.
  store->put(storage.getStorageKey(),
             R"({"":5,"b":{"fcc-enable":true,"fcc-html":"<p>b","fcc-url-query-rule":"b",)"
             R"("fcc-version":"1","html-byte-size":4,"fcc-url":"https://h.example/broken",)"
             R"("fcc-expire-time":1e15}})");
  ASSERT_TRUE(storage.read(page));
  EXPECT_EQ(storage.read(page)->getHtml(), "<p>b");
}

TEST(FirstChunkStorage, BytesThatAreNotUtf8AreStoredByteExact) {
  const std::string page = "https://h.example/latin1";
  FirstChunkStorage storage(page);
  // GBK "中文" and Latin-1 "é": neither is UTF-8.
  const std::string html = "<p>\xd6\xd0\xce\xc4 caf\xe9</p>" + kMarker;
  tide::LogCapture log;
  ASSERT_TRUE(storage.write(record(page, html, "v\xe9")));
  auto stored = storage.read(page);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->getHtml(), html);
  EXPECT_EQ(stored->getVersion(), "v\xe9");
  // Records written before the encoding existed still read.
  EXPECT_TRUE(log.find("writeFail").empty());
}

TEST(FirstChunkStorage, LargeChunksAreRefusedAndLogsNeverCarryTheChunk) {
  const std::string page = "https://h.example/large";
  FirstChunkStorage storage(page);
  tide::LogCapture log;
  const std::string fits(FirstChunkStorage::kMaxHtmlBytes, 'x');
  ASSERT_TRUE(storage.write(record(page, fits)));
  ASSERT_TRUE(storage.read(page));
  EXPECT_FALSE(storage.write(record(page, fits + "y")));
  EXPECT_EQ(log.find("tooLarge").size(), 1u);
  EXPECT_EQ(storage.read(page)->getHtml(), fits);
  for (const auto& entry : log.entries())
    EXPECT_LT(entry.dump().size(), 4096u) << entry["event"];
}

TEST(FirstChunkStorage, ExpiredPagesAreSweptAndTheStoreIsCapped) {
  auto page = [](int i) { return "https://h.example/swept/" + std::to_string(i); };
  const double now = static_cast<double>(tern::currentTimeMillis());
  ASSERT_TRUE(FirstChunkStorage(page(0)).write(record(page(0), "<p>old", "1", "", now - 1000)));
  ASSERT_TRUE(FirstChunkStorage(page(1)).write(record(page(1), "<p>new", "1", "", now + 60000)));
  FirstChunkStorage::sweep();
  EXPECT_FALSE(storedValue(FirstChunkStorage(page(0)).getStorageKey()));
  EXPECT_TRUE(FirstChunkStorage(page(1)).read(page(1)));

  // Past the cap, the pages that expire soonest make room; the newest write
  // always stays.
  for (size_t i = 2; i < FirstChunkStorage::kMaxPages + 12; ++i) {
    ASSERT_TRUE(FirstChunkStorage(page(i)).write(record(page(i), "<p>", "1", "", now + 1e6 + i)));
  }
  auto index = nlohmann::json::parse(*storedValue(FirstChunkStorage::kIndexKey));
  EXPECT_LE(index.size(), FirstChunkStorage::kMaxPages);
  EXPECT_FALSE(storedValue(FirstChunkStorage(page(1)).getStorageKey()));  // expired soonest
  EXPECT_TRUE(
      storedValue(FirstChunkStorage(page(FirstChunkStorage::kMaxPages + 11)).getStorageKey()));
  for (size_t i = 0; i < FirstChunkStorage::kMaxPages + 12; ++i)
    FirstChunkStorage(page(i)).remove();
  index = nlohmann::json::parse(*storedValue(FirstChunkStorage::kIndexKey));
  for (const auto& [key, expiry] : index.items())
    EXPECT_EQ(key.find("/swept/"), std::string::npos) << key;
}

TEST(FirstChunkStorage, TwoWritersOfOneKeyLeaveAReadableEntry) {
  const std::string page = "https://h.example/race";
  tide::LogCapture log;
  auto writer = [&page](const std::string& rule) {
    for (int i = 0; i < 100; ++i)
      EXPECT_TRUE(FirstChunkStorage(page).write(record(page, "<p>" + rule, "1", rule)));
  };
  std::thread a(writer, "a");
  std::thread b(writer, "b");
  a.join();
  b.join();
  // One record may be lost to the other writer; the entry stays whole.
  nlohmann::json stored =
      nlohmann::json::parse(*storedValue(FirstChunkStorage(page).getStorageKey()));
  EXPECT_TRUE(stored.contains("a") || stored.contains("b"));
  EXPECT_TRUE(log.find("writeFail").empty());
  EXPECT_TRUE(log.find("readFail").empty());
}

TEST(FirstChunkContext, ExpiresAfterItsLastMillisecondAndPrintsForLogs) {
  FirstChunkContext context;
  EXPECT_EQ(context.getVersion(), "0");
  context.setExpiredTime(1700000000000.0);
  tern::fixTimeMillis(1700000000000);
  EXPECT_FALSE(context.isExpired());  // its last millisecond
  tern::fixTimeMillis(1700000000001);
  EXPECT_TRUE(context.isExpired());
  tern::clearFixedTime();

  context.setEnable(true);
  context.setUrl("u");
  context.setRule("r");
  context.setVersion("v");
  context.setExpiredTime(1.5);
  context.setHtml("<p>");
  EXPECT_EQ(context.toString(),
            "{\"enable\"=1,\"url\"=u,\"rule\"=r,\"version\"=v,\"expiredTime\"=1.500000,"
            "\"html\"=<p>}");
  EXPECT_EQ(context.toLogString(),
            "{\"enable\"=1,\"url\"=u,\"rule\"=r,\"version\"=v,\"expiredTime\"=1.500000,"
            "\"html\"=3 bytes, fnv1a 6fde8c182feba3fd}");
}

TEST(FirstChunkHandler, ResponseHeadersAreReadExactly) {
  auto context = std::make_shared<FirstChunkContext>();
  FirstChunkHandler::parseResponseHeaders(
      context,
      {{"fcc-enable", {"True"}}, {"fcc-version", {"7", "8"}}, {"fcc-url-query-rule", {"id"}}});
  EXPECT_FALSE(context->isEnable());
  EXPECT_EQ(context->getVersion(), "7");
  EXPECT_EQ(context->getRule(), "id");
  double dayAhead = tern::currentTimeMillis() + FirstChunkHandler::kDefaultLifetimeMs;
  EXPECT_NEAR(context->getExpiredTime(), dayAhead, 5000);

  FirstChunkHandler::parseResponseHeaders(
      context, {{"fcc-enable", {"true"}}, {"fcc-expire-time", {"1700000000123"}}});
  EXPECT_TRUE(context->isEnable());
  EXPECT_EQ(context->getExpiredTime(), 1700000000123.0);
  EXPECT_EQ(FirstChunkHandler::getFirstHeaderValue({}), "");
}

TEST(FirstChunkHandler, ACurrentChunkIsSplicedSeamlesslyWhereverThePiecesBreak) {
  const std::string page = "https://h.example/seamless";
  const std::string live = firstChunk("1") + kRest;
  for (const auto& cuts : interestingCuts(live)) {
    ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"))));
    auto seen = visit(page, fccHeaders("1"), split(live, cuts));
    ASSERT_EQ(seen->body, live) << "cut at " << cuts[0] << " of " << cuts.size();
    // The engine got the cached chunk's 200 only; the real one went to
    // onNetResponse.
    ASSERT_EQ(seen->statuses, std::vector<int>{200});
    ASSERT_EQ(seen->netStatuses, std::vector<int>{200});
    ASSERT_EQ(seen->headers["x-first-chunk-cache"], std::list<std::string>{"true"});
    ASSERT_EQ(seen->headers["x-first-chunk-length"],
              std::list<std::string>{std::to_string(firstChunk("1").size())});
  }
}

TEST(FirstChunkHandler, EntriesSayWhereTheSpliceHappened) {
  const std::string page = "https://h.example/entries";
  const std::string current = firstChunk("1") + kRest;
  const size_t cut = firstChunk("1").size() - 5;
  ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"))));
  tide::LogCapture log;
  visit(page, fccHeaders("1"), split(current, {cut}));
  auto response = log.find("response", "Velora/first_chunk_handler").at(0)["fields"];
  EXPECT_EQ(response["code"], 200);
  EXPECT_EQ(response["head"]["fcc-version"].dump(), R"(["1"])");
  EXPECT_EQ(response["useFirstChunkCache"], true);
  EXPECT_EQ(response["needInvalidateCache"], false);
  EXPECT_EQ(response["responseContextVersion"], "1");
  EXPECT_EQ(response["cacheContextVersion"], "1");
  auto after = log.find("dataAfterFcc").at(0)["fields"];
  EXPECT_EQ(after["fccByteIndex"], 5);
  EXPECT_EQ(after["offset"], cut);
  EXPECT_EQ(after["firstChunkHtmlLength"], firstChunk("1").size());
  EXPECT_EQ(log.find("writeCache").size(), 1u);

  log.clear();
  visit(page, fccHeaders("2"), {firstChunk("2") + kRest});
  auto invalidate = log.find("invalidateCache").at(0)["fields"];
  EXPECT_EQ(invalidate["serverVersion"], "2");
  EXPECT_EQ(invalidate["cacheVersion"], "1");
  EXPECT_EQ(log.find("dataAfterFcc").at(0)["fields"]["fccByteIndex"], firstChunk("2").size());
}

TEST(FirstChunkHandler, AStaleChunkIsUndoneAndReplacedWhereverThePiecesBreak) {
  const std::string page = "https://h.example/stale";
  const std::string live = firstChunk("2") + kRest;
  const std::string expected =
      firstChunk("1") + FirstChunkHandler::getInvalidateScriptData() + live;
  for (const auto& cuts : interestingCuts(live)) {
    FirstChunkStorage(page).remove();
    ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"), "1")));
    auto seen = visit(page, fccHeaders("2"), split(live, cuts));
    ASSERT_EQ(seen->body, expected) << "cut at " << cuts[0] << " of " << cuts.size();
    auto stored = FirstChunkStorage(page).read(page);
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->getVersion(), "2");
    ASSERT_EQ(stored->getHtml(), firstChunk("2"));
  }
}

TEST(FirstChunkHandler, ServerSwitchingTheCacheOffGetsTheRecordRemoved) {
  const std::string page = "https://h.example/off";
  const std::string live = firstChunk("1") + kRest;
  for (const char* off : {"false", "True"}) {
    ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"))));
    auto seen = visit(page, fccHeaders("1", off), split(live, {10, 40}));
    EXPECT_EQ(seen->body, firstChunk("1") + FirstChunkHandler::getInvalidateScriptData() + live);
    EXPECT_FALSE(storedValue(FirstChunkStorage(page).getStorageKey()));
  }
}

TEST(FirstChunkHandler, WithoutAUsableChunkTheLiveResponsePassesAndIsStored) {
  const std::string page = "https://h.example/fresh";
  const std::string live = firstChunk("3") + kRest;
  tide::LogCapture log;

  // Nothing stored: the real response passes and its chunk is kept.
  auto first = visit(page, fccHeaders("3"), split(live, {5, 30}));
  EXPECT_EQ(first->body, live);
  EXPECT_EQ(first->statuses, std::vector<int>{200});
  EXPECT_TRUE(first->headers.count("fcc-version"));
  auto stored = FirstChunkStorage(page).read(page);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->getHtml(), firstChunk("3"));

  // Expired: removed before the request, nothing served, stored anew.
  ASSERT_TRUE(FirstChunkStorage(page).write(
      record(page, firstChunk("1"), "1", "", tern::currentTimeMillis() - 1000.0)));
  log.clear();
  auto expired = visit(page, fccHeaders("3"), {live});
  EXPECT_EQ(expired->body, live);
  EXPECT_FALSE(expired->headers.count("x-first-chunk-cache"));
  ASSERT_EQ(log.find("remove", "Velora/first_chunk_storage").size(), 1u);
  auto request = log.find("request", "Velora/first_chunk_handler");
  ASSERT_EQ(request.size(), 1u);
  EXPECT_EQ(request[0]["fields"]["fccExpired"], true);

  // A marker that never comes (an error page, a new template), with the
  // version the same or new: the served chunk is undone, the whole live page
  // follows, and the record that no longer fits goes.
  const std::string errorPage = "<html>no marker here</html>";
  for (const char* version : {"3", "4"}) {
    ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("3"), "3")));
    auto noMarker = visit(page, fccHeaders(version), split(errorPage, {4}));
    EXPECT_EQ(noMarker->body,
              firstChunk("3") + FirstChunkHandler::getInvalidateScriptData() + errorPage)
        << version;
    EXPECT_EQ(noMarker->finishes, 1);
    EXPECT_FALSE(FirstChunkStorage(page).read(page)) << version;
  }
  // With nothing stored, a page without a marker passes as it comes.
  EXPECT_EQ(visit(page, fccHeaders("3"), {errorPage})->body, errorPage);
}

TEST(FirstChunkHandler, AMarkerlessPageIsNeverHeldBackBeyondTheLargestChunk) {
  const std::string page = "https://h.example/endless";
  const std::string piece(64 * 1024, 'z');
  const size_t pieces = FirstChunkStorage::kMaxHtmlBytes / piece.size() + 4;
  for (bool served : {false, true}) {
    FirstChunkStorage(page).remove();
    if (served) {
      ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"))));
    }
    auto recorder = std::make_shared<Recorder>();
    auto handler = std::make_shared<FirstChunkHandler>(recorder);
    auto request = std::make_shared<gantry_ssr::SsrRequest>(page);
    handler->onSendRequest(request);
    handler->onResponse(request, 200, fccHeaders("1"));
    size_t heldBackAtMost = 0;
    for (size_t i = 0; i < pieces; ++i) {
      handler->onReceiveData(request, piece);
      const size_t given = recorder->body.size() - (served ? firstChunk("1").size() : 0);
      heldBackAtMost = std::max(heldBackAtMost,
                                (i + 1) * piece.size() - std::min(given, (i + 1) * piece.size()));
    }
    // Past the limit everything so far has reached the engine, in order.
    EXPECT_LE(heldBackAtMost, FirstChunkStorage::kMaxHtmlBytes + piece.size()) << served;
    std::string expected =
        served ? firstChunk("1") + FirstChunkHandler::getInvalidateScriptData() : "";
    for (size_t i = 0; i < pieces; ++i)
      expected += piece;
    EXPECT_EQ(recorder->body, expected) << served;
    handler->onFinish(request);
    tern::ExecutorService::of("Velora", TERN_HERE).waitIdle();
    EXPECT_EQ(recorder->body, expected) << served;
    EXPECT_FALSE(FirstChunkStorage(page).read(page)) << served;
  }
}

TEST(FirstChunkHandler, ALiveFailureStoresAndRemovesNothing) {
  const std::string page = "https://h.example/failing";
  const std::string live = firstChunk("2") + kRest;
  // After the response, then in the middle of the body, past the marker.
  for (size_t cut : {size_t{0}, live.size() / 2}) {
    ASSERT_TRUE(FirstChunkStorage(page).write(record(page, firstChunk("1"), "1")));
    auto recorder = std::make_shared<Recorder>();
    auto handler = std::make_shared<FirstChunkHandler>(recorder);
    auto request = std::make_shared<gantry_ssr::SsrRequest>(page);
    handler->onSendRequest(request);
    handler->onResponse(request, 200, fccHeaders("1"));
    if (cut > 0)
      handler->onReceiveData(request, live.substr(0, cut));
    handler->onError(request, std::make_shared<gantry_ssr::SsrResponse>(56, "reset"));
    tern::ExecutorService::of("Velora", TERN_HERE).waitIdle();
    EXPECT_EQ(recorder->errors, 1);
    auto stored = FirstChunkStorage(page).read(page);
    ASSERT_TRUE(stored) << cut;
    EXPECT_EQ(stored->getHtml(), firstChunk("1")) << cut;
  }
}
