// Prefetch: the recording and its replay, the registry's rules, and pages
// taking a prefetch over however early or late they come.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "bound_page.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"
#include "prefetch/prefetch_request_cache.h"
#include "test_support.h"
#include "tide_logger/log.h"
#include "tide_logger/log_capture.h"
#include "transport_param.h"

using velora::HeaderMultimap;
using velora::PrefetchNetwork;
using velora::PrefetchRequest;
using velora::PrefetchRequestCache;
using velora_test::BoundPage;
using velora_test::OriginServer;
using velora_test::patternBytes;

namespace {

// Keeps what it receives: calls as letters (R D F E) and the body.
class Recorder final : public velora::NetRequestCallBack {
 public:
  void onResponse(int status, const HeaderMultimap&) override {
    std::lock_guard<std::mutex> lock(mutex);
    calls += 'R';
    this->status = status;
  }
  void onData(const unsigned char* data, unsigned long length) override {
    std::lock_guard<std::mutex> lock(mutex);
    calls += 'D';
    body.append(reinterpret_cast<const char*>(data), length);
  }
  void onFinish() override {
    std::lock_guard<std::mutex> lock(mutex);
    calls += 'F';
  }
  void onError(int code, ArkWeb_NetError error, const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex);
    calls += 'E';
    errorCode = code;
    netError = error;
    errorMessage = message;
  }
  std::string snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }

  std::mutex mutex;
  std::string calls;
  std::string body;
  int status = 0;
  int errorCode = 0;
  ArkWeb_NetError netError = ARKWEB_NET_OK;
  std::string errorMessage;
};

std::shared_ptr<PrefetchRequestCache> newCache() {
  return std::make_shared<PrefetchRequestCache>(std::make_shared<PrefetchRequest>("https://h/p"));
}

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string startPrefetch(const std::string& url,
                          std::shared_ptr<velora::NetRequestCallBack> receiver = nullptr,
                          std::map<std::string, std::string> headers = {}) {
  auto request = std::make_shared<PrefetchRequest>(url);
  request->setMethod("GET");
  for (const auto& [name, value] : headers)
    request->setHeader(name, value);
  return PrefetchNetwork::startPrefetch(request, std::move(receiver));
}

class PrefetchTakeoverOver : public velora_test::OverEachTransport {};

}  // namespace

TEST(PrefetchRequestCache, ClaimsBeforeDuringAndAfterTheResponseSeeEveryEventOnce) {
  std::string chunk(1000, 'x');
  // Before any event: nothing at claim time, everything live.
  auto early = newCache();
  auto first = std::make_shared<Recorder>();
  EXPECT_TRUE(early->consume(first));
  EXPECT_EQ(first->calls, "");
  early->onResponse(200, {});
  early->onData(bytes(chunk), chunk.size());
  early->onFinish();
  EXPECT_EQ(first->calls, "RDF");

  // After the end: the whole recording at once, including an empty chunk.
  auto late = newCache();
  late->onResponse(200, {{"A", {"1", "2"}}});
  std::string reused = chunk;
  late->onData(bytes(reused), reused.size());
  reused.assign(reused.size(), 'y');  // the cache kept its own copy
  late->onData(bytes(reused), 0);
  late->onFinish();
  EXPECT_EQ(late->recordedBytes(), 1000u);
  auto second = std::make_shared<Recorder>();
  EXPECT_TRUE(late->consume(second));
  EXPECT_EQ(second->calls, "RDDF");
  EXPECT_EQ(second->body, chunk);
  EXPECT_EQ(late->recordedBytes(), 0u);

  // A second claim gets nothing; after the end the first consumer is let go.
  auto third = std::make_shared<Recorder>();
  EXPECT_FALSE(late->consume(third));
  late->onData(bytes(chunk), 10);
  EXPECT_EQ(third->calls, "");
  EXPECT_EQ(second->calls, "RDDF");
}

TEST(PrefetchRequestCache, ARecordedErrorIsReplayedWithItsValuesAndLogged) {
  tide::LogCapture log;
  auto cache = newCache();
  cache->onError(56, ARKWEB_ERR_FAILED, "reset");
  auto consumer = std::make_shared<Recorder>();
  ASSERT_TRUE(cache->consume(consumer));
  EXPECT_EQ(consumer->calls, "E");
  EXPECT_EQ(consumer->errorCode, 56);
  EXPECT_EQ(consumer->netError, ARKWEB_ERR_FAILED);
  EXPECT_EQ(consumer->errorMessage, "reset");
  auto replayed = log.find("consumeError", "Velora/prefetch_request_cache");
  ASSERT_EQ(replayed.size(), 1u);
  EXPECT_EQ(replayed[0]["fields"]["errorCode"], "-2");
  EXPECT_EQ(replayed[0]["fields"]["errorMsg"], "reset");
}

TEST(PrefetchRequestCache, EventsAfterTheEndAreNeverReplayed) {
  const std::string chunk = "after the end";
  for (bool failed : {false, true}) {
    auto cache = newCache();
    cache->onResponse(200, {});
    if (failed)
      cache->onError(56, ARKWEB_ERR_FAILED, "reset");
    else
      cache->onFinish();
    // A carrier that goes on after its end.
    cache->onData(bytes(chunk), chunk.size());
    cache->onFinish();
    auto consumer = std::make_shared<Recorder>();
    ASSERT_TRUE(cache->consume(consumer));
    EXPECT_EQ(consumer->calls, failed ? "RE" : "RF");
    EXPECT_EQ(consumer->body, "");
  }
}

TEST(PrefetchRequestCache, AClaimRacingLiveChunksNeverLosesOrRepeatsOne) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 1000; ++round) {
    auto cache = newCache();
    auto consumer = std::make_shared<Recorder>();
    int chunks = 1 + static_cast<int>(random() % 8);
    unsigned claimDelay = random() % 200, chunkDelay = random() % 40;
    std::thread network([&] {
      cache->onResponse(200, {});
      for (int i = 0; i < chunks; ++i) {
        std::string piece(1 + i, static_cast<char>('a' + i));
        cache->onData(bytes(piece), piece.size());
        if (chunkDelay)
          std::this_thread::sleep_for(std::chrono::microseconds(chunkDelay));
      }
      cache->onFinish();
    });
    std::this_thread::sleep_for(std::chrono::microseconds(claimDelay));
    ASSERT_TRUE(cache->consume(consumer));
    network.join();
    std::string expected;
    for (int i = 0; i < chunks; ++i)
      expected += std::string(1 + i, static_cast<char>('a' + i));
    ASSERT_EQ(consumer->body, expected) << "round " << round;
    ASSERT_EQ(consumer->calls, "R" + std::string(chunks, 'D') + "F") << "round " << round;
  }
}

VELORA_CHILD(FirstPrefetchIdIsOne) {
  return velora::PrefetchNetwork::startPrefetch(
             std::make_shared<PrefetchRequest>("http://127.0.0.1:1/"), nullptr) == "1"
             ? 0
             : 1;
}

TEST(PrefetchNetwork, IdsCountFromOneAndTheRequestCarriesTheDefaultHeaders) {
  EXPECT_EQ(velora_test::runChild("FirstPrefetchIdIsOne"), 0);
  OriginServer origin;
  auto receiver = std::make_shared<Recorder>();
  std::string id =
      startPrefetch(origin.url("/headers"), receiver, {{"Accept", "text/plain"}, {"X-Extra", "1"}});
  EXPECT_EQ(startPrefetch(origin.url("/bytes/1")), std::to_string(std::stoull(id) + 1));
  ASSERT_TRUE(velora_test::waitFor([&] { return receiver->snapshot() == "RDF"; }));
  auto sent = nlohmann::json::parse(receiver->body);
  EXPECT_EQ(sent["accept"], "text/plain");
  EXPECT_EQ(sent["accept-language"], "zh-CN,zh;q=0.9,en-CN;q=0.8,en-US;q=0.7,en;q=0.6;");
  EXPECT_EQ(sent["x-extra"], "1");
  EXPECT_NE(sent["user-agent"].get<std::string>().find("ArkWeb/4.1.6.1 Mobile"), std::string::npos);

  auto stored = PrefetchNetwork::getPrefetchRequest(id);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->getRequestId(), id);
  EXPECT_FALSE(stored->isJustFirstChunk());
  EXPECT_EQ(stored->getHeaders().count("Accept-Encoding"), 1u);
  EXPECT_EQ(stored->getHeaders().at("Accept"), "text/plain");
  EXPECT_GT(stored->getRequestStartTime(), 0);
  EXPECT_FALSE(PrefetchNetwork::removePrefetch("never-started"));
  EXPECT_EQ(PrefetchNetwork::getPrefetchRequest("never-started"), nullptr);
}

TEST(PrefetchNetwork, FinishedUnclaimedStaysClaimedFinishedAndFailedGoAway) {
  OriginServer origin;
  std::string unclaimed = startPrefetch(origin.url("/bytes/100"));
  auto done = [&](const std::string& id) {
    return velora_test::waitFor(
        [&] {
          auto cache = PrefetchNetwork::getPrefetchRequest(id);
          return cache == nullptr;
        },
        std::chrono::milliseconds(300));
  };
  EXPECT_FALSE(done(unclaimed));  // still registered after its end
  auto consumer = std::make_shared<Recorder>();
  EXPECT_TRUE(PrefetchNetwork::consumePrefetch(unclaimed, consumer));
  EXPECT_EQ(consumer->calls, "RDF");
  EXPECT_FALSE(PrefetchNetwork::consumePrefetch(unclaimed, std::make_shared<Recorder>()));

  std::string claimedEarly = startPrefetch(origin.url("/delay?ms=100&size=10"));
  auto early = std::make_shared<Recorder>();
  EXPECT_TRUE(PrefetchNetwork::consumePrefetch(claimedEarly, early));
  EXPECT_TRUE(velora_test::waitFor(
      [&] { return PrefetchNetwork::getPrefetchRequest(claimedEarly) == nullptr; }));
  EXPECT_EQ(early->snapshot(), "RDF");

  std::string failing =
      startPrefetch("http://127.0.0.1:" + std::to_string(velora_test::refusedPort()) + "/");
  EXPECT_TRUE(velora_test::waitFor(
      [&] { return PrefetchNetwork::getPrefetchRequest(failing) == nullptr; }));
  EXPECT_FALSE(PrefetchNetwork::consumePrefetch(failing, std::make_shared<Recorder>()));
}

TEST_P(PrefetchTakeoverOver, APageGetsTheBodyByteExactOnceWhenItClaimsEarlyMidwayOrLate) {
  constexpr size_t kSize = 5 << 20;
  const std::string expected = patternBytes(0, kSize);
  std::string path = "/bytes/" + std::to_string(kSize) + "?chunk=65536&delay=3";
  for (int waitMs : {0, 120, 1500}) {
    std::string url = origin.url(path + "&case=" + std::to_string(waitMs));
    std::string id = startPrefetch(url);
    std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    BoundPage page("page" + std::to_string(waitMs), id, url);
    tide::LogCapture log;
    arkweb_host::LoadResult result = page.load(url);
    EXPECT_TRUE(result.intercepted);
    EXPECT_EQ(result.bodySize, kSize) << waitMs;
    EXPECT_TRUE(result.body == expected) << "body differs when claimed after " << waitMs << " ms";
    EXPECT_EQ(origin.count("/bytes/" + std::to_string(kSize)),
              waitMs == 0 ? 1 : (waitMs == 120 ? 2 : 3));
    EXPECT_EQ(log.find("request", "Velora/Network").at(0)["fields"]["prefetchHit"], true);
  }
}

TEST(PrefetchTakeover, OnlyTheMainFrameOfTheExactUrlOfTheBoundIdTakesItOnce) {
  OriginServer origin;
  std::string url = origin.url("/bytes/1000?x");
  std::string id = startPrefetch(url);
  tide::LogCapture log;
  {
    BoundPage zero("zero", "0", url);
    arkweb_host::LoadOptions main(url);
    EXPECT_EQ(zero.load(main).bodySize, 1000u);
  }
  BoundPage page("page", id, url);
  arkweb_host::LoadOptions sub(url);
  sub.mainFrame = false;
  page.load(sub);
  page.load(url + "/");
  EXPECT_EQ(page.load(url).bodySize, 1000u);  // the hit
  BoundPage second("second", id, url);
  EXPECT_EQ(second.load(url).bodySize, 1000u);  // already taken: from the network
  std::vector<bool> hits;
  for (const auto& entry : log.find("request", "Velora/Network"))
    hits.push_back(entry["fields"]["prefetchHit"]);
  EXPECT_EQ(hits, (std::vector<bool>{false, false, false, true, false}));
}

TEST_P(PrefetchTakeoverOver, AFailedPrefetchIsForgottenAndThePageAsksTheNetworkItself) {
  std::string url = origin.url("/reset?after=10");
  std::string id = startPrefetch(url);
  EXPECT_TRUE(
      velora_test::waitFor([&] { return PrefetchNetwork::getPrefetchRequest(id) == nullptr; }));
  BoundPage page("page", id, url);
  tide::LogCapture log;
  page.load(url);
  EXPECT_EQ(log.find("request", "Velora/Network").at(0)["fields"]["prefetchHit"], false);
  EXPECT_EQ(origin.count("/reset"), 2);
}

TEST(PrefetchTakeover, DestroyingTheBoundComponentRemovesItsPrefetch) {
  OriginServer origin;
  std::string id = startPrefetch(origin.url("/bytes/10"));
  BoundPage page("page", id, origin.url("/bytes/10"));
  EXPECT_NE(PrefetchNetwork::getPrefetchRequest(id), nullptr);
  page.destroy();
  EXPECT_EQ(PrefetchNetwork::getPrefetchRequest(id), nullptr);
}

// The prefetch's connection is the one the page then uses: a page whose
// document was prefetched pays for no handshake of its own.
TEST_P(PrefetchTakeoverOver, APrefetchWarmsTheConnectionThePageThenUses) {
  std::string url = origin.url("/bytes/20000?page");
  std::string id = startPrefetch(url);
  ASSERT_TRUE(velora_test::waitFor([&] {
    auto request = PrefetchNetwork::getPrefetchRequest(id);
    return request && origin.count("/bytes/20000") == 1;
  }));
  BoundPage page("page", id, url);
  EXPECT_TRUE(page.load(url).body == patternBytes(0, 20000));
  for (const char* resource : {"/bytes/300?a", "/bytes/400?b", "/headers"})
    EXPECT_EQ(page.load(origin.url(resource)).error, 0);
  EXPECT_EQ(origin.count("/bytes/20000"), 1);
  if (overTls()) {
    EXPECT_EQ(origin.tls().handshakes, 1);
  } else {
    EXPECT_EQ(origin.connections(), 2);  // the page's, and the one asking
  }
}

VELORA_OVER_EACH_TRANSPORT(PrefetchTakeoverOver);
