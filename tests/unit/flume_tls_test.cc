// flume over TLS: which servers it refuses, how it shares connections and
// sessions, and what HTTP/2's own faults do to the streams on a connection.
#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "flume/flume.h"
#include "flume/host_config.h"
#include "flume/transport_settings.h"
#include "origin_server.h"
#include "test_support.h"

using velora_test::fetch;
using velora_test::FetchResult;
using velora_test::OriginServer;
using velora_test::patternBytes;
using velora_test::TlsStats;
using velora_test::Transport;

namespace {

// Starts every URL at once on the process session and waits for them all.
std::vector<FetchResult> fetchAll(const std::vector<std::string>& urls) {
  std::vector<std::future<FetchResult>> pending;
  for (const std::string& url : urls)
    pending.push_back(std::async(std::launch::async, [url] { return fetch(url); }));
  std::vector<FetchResult> results;
  for (auto& result : pending)
    results.push_back(result.get());
  return results;
}

}  // namespace

TEST(FlumeTls, ServersABrowserWouldRefuseFailOnceBeforeAnyResponse) {
  OriginServer origin;
  // The tls10 listener really does speak TLS 1.0 to a client that allows it.
  const std::string probe = "env -u LD_PRELOAD curl -s -o /dev/null --cacert '" +
                            std::string(std::getenv("VELORA_CA_FILE")) +
                            "' --tlsv1.0 --tls-max 1.0 --ciphers DEFAULT@SECLEVEL=0 " +
                            origin.faultUrl("tls10");
  ASSERT_EQ(std::system(probe.c_str()), 0);
  ASSERT_EQ(origin.tls().refusedReached, 1);

  for (const velora_test::RefusedServer& c : velora_test::refusedServers()) {
    FetchResult result = fetch(origin.faultUrl(c.fault));
    EXPECT_FALSE(result.responded) << c.fault;
    EXPECT_EQ(result.events, "SME") << c.fault;
    EXPECT_NE(result.errorCode, 0) << c.fault;
    EXPECT_NE(result.errorMessage.find(c.cause), std::string::npos)
        << c.fault << ": " << result.errorMessage;
  }
  EXPECT_EQ(origin.tls().refusedReached, 1) << "a request got through a bad server";
}

TEST(FlumeTls, AHandshakeThatStallsEndsAtTheConnectTimeout) {
  OriginServer origin;
  flume::setDefaultTimeouts(500, 60000);
  auto started = std::chrono::steady_clock::now();
  FetchResult result = fetch(origin.faultUrl("stall"));
  auto took = std::chrono::steady_clock::now() - started;
  flume::setDefaultTimeouts(30000, 60000);
  EXPECT_EQ(result.events, "SME");
  EXPECT_EQ(result.errorCode, 28);  // CURLE_OPERATION_TIMEDOUT
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(FlumeTls, ParallelRequestsToAnHttp2OriginShareOneConnection) {
  OriginServer origin(Transport::kHttpsH2);
  std::vector<std::string> urls;
  for (int i = 0; i < 50; ++i)
    urls.push_back(origin.url("/delay?ms=50&size=" + std::to_string(1000 + i)));
  std::vector<FetchResult> results = fetchAll(urls);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(results[i].status, 200) << results[i].errorMessage;
    EXPECT_TRUE(results[i].body == patternBytes(0, 1000 + i));
  }
  TlsStats tls = origin.tls();
  EXPECT_EQ(tls.handshakes, 1);
  EXPECT_EQ(tls.h2Sessions, 1);
  EXPECT_EQ(tls.h2Streams, 50);
}

TEST(FlumeTls, AnHttp1OriginGetsAtMostSixConnectionsThatResumeItsSession) {
  OriginServer origin(Transport::kHttpsH1);
  ASSERT_EQ(fetch(origin.url("/bytes/10")).status, 200);
  std::vector<std::string> urls;
  for (int i = 0; i < 30; ++i)
    urls.push_back(origin.url("/delay?ms=100&size=" + std::to_string(100 + i)));
  std::vector<FetchResult> results = fetchAll(urls);
  for (int i = 0; i < 30; ++i)
    ASSERT_EQ(results[i].status, 200) << results[i].errorMessage;
  TlsStats tls = origin.tls();
  EXPECT_EQ(tls.h1Requests, 31);
  EXPECT_LE(tls.handshakes, 6);
  EXPECT_GE(tls.handshakes, 2);
  // Later connections resume the first one's session rather than paying a
  // full handshake (how many depends on when each got a ticket to resume).
  EXPECT_GE(tls.resumed, 1);
}

TEST(FlumeTls, ABurstOfRequestsLeavesItsConnectionsOpenForTheNext) {
  OriginServer origin(Transport::kHttpsH1);
  const std::vector<std::string> burst(30, origin.url("/delay?ms=50"));
  auto send = [&] {
    for (const FetchResult& result : fetchAll(burst))
      ASSERT_EQ(result.status, 200) << result.errorMessage;
  };
  send();
  send();  // by now the host has all the connections a burst takes
  const int handshakes = origin.tls().handshakes;
  send();
  // Kept to four per transfer under way, the pool closed some as the last
  // burst ended, and the next one handshook again for them.
  EXPECT_EQ(origin.tls().handshakes, handshakes);
}

TEST(FlumeTls, AResetStreamLeavesTheOtherStreamsOnItsConnection) {
  OriginServer origin(Transport::kHttpsH2);
  std::vector<FetchResult> results = fetchAll({
      origin.url("/bytes/300000?chunk=30000&delay=40"),
      origin.url("/rst?after=1000"),
      origin.url("/bytes/200000?chunk=20000&delay=40"),
  });
  EXPECT_EQ(results[1].events, "SRDME");
  EXPECT_EQ(results[1].body, patternBytes(0, 1000));
  EXPECT_EQ(results[0].errorCode, 0) << results[0].errorMessage;
  EXPECT_TRUE(results[0].body == patternBytes(0, 300000));
  EXPECT_EQ(results[2].errorCode, 0) << results[2].errorMessage;
  EXPECT_TRUE(results[2].body == patternBytes(0, 200000));
  EXPECT_EQ(origin.tls().handshakes, 1);
}

TEST(FlumeTls, ADroppedConnectionFailsEveryStreamOnItOnce) {
  OriginServer origin(Transport::kHttpsH2);
  std::vector<FetchResult> results = fetchAll({
      origin.url("/stall?after=100"),
      origin.url("/bytes/5000000?chunk=10000&delay=50"),
      origin.url("/reset?after=1000"),
  });
  ASSERT_EQ(origin.tls().h2Sessions, 1);
  for (const FetchResult& result : results) {
    EXPECT_NE(result.errorCode, 0);
    EXPECT_EQ(result.events.back(), 'E');
    EXPECT_EQ(std::count(result.events.begin(), result.events.end(), 'E'), 1);
  }
  EXPECT_EQ(origin.count("/reset"), 1) << "a request was sent again";
}

TEST(FlumeTls, AGoawayFailsOrRetriesExactlyTheStreamsTheServerDidNotProcess) {
  OriginServer origin(Transport::kHttpsH2);
  // Four GETs on one connection; the server answers the first two it got and
  // says, by GOAWAY, that it never processed the others.
  std::vector<std::string> urls(4, origin.url("/hold?group=g&n=4&goaway=2"));
  std::vector<FetchResult> results = fetchAll(urls);
  nlohmann::json group = nlohmann::json::parse(fetch(origin.httpUrl("/__hold?group=g")).body);
  int answered = 0;
  for (const FetchResult& result : results) {
    EXPECT_EQ(std::count(result.events.begin(), result.events.end(), 'E') +
                  std::count(result.events.begin(), result.events.end(), 'F'),
              1);
    if (result.errorCode == 0) {
      EXPECT_EQ(result.body, "held g");
      ++answered;
    }
  }
  // Each unprocessed GET is retried once, on a new connection.
  EXPECT_EQ(answered, 4);
  EXPECT_EQ(group["arrived"].get<int>(), 6);
  EXPECT_EQ(group["answered"].get<int>(), 4);
  EXPECT_GE(origin.tls().h2Sessions, 2);
  EXPECT_LE(origin.tls().h2Sessions, 3);
}

// A cancelled stream is reset while the connection's other streams go on; a
// cancelled stream alone on its connection takes the connection with it, so
// the server stops sending either way.
TEST(FlumeTls, CancellingAStreamStopsItsSenderAndSparesTheOtherStreams) {
  OriginServer origin(Transport::kHttpsH2);
  const std::string longBody = "/bytes/209715200?chunk=65536&delay=2";
  auto cancelled = flume::FLHttpRequest::create(origin.url(longBody));
  auto pending = std::async(std::launch::async, [&] { return fetch(cancelled); });
  auto other = std::async(std::launch::async,
                          [&] { return fetch(origin.url("/bytes/3000000?chunk=30000&delay=20")); });
  ASSERT_TRUE(velora_test::waitFor([&] { return origin.sentBytes("/bytes/209715200") > 0; }));
  flume::FLHttpSession::getSession()->cancel(cancelled);
  EXPECT_EQ(pending.get().errorCode, 42);
  FetchResult survivor = other.get();
  EXPECT_EQ(survivor.errorCode, 0) << survivor.errorMessage;
  EXPECT_TRUE(survivor.body == patternBytes(0, 3000000));
  const int64_t afterStop = origin.sentBytes("/bytes/209715200");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(origin.sentBytes("/bytes/209715200"), afterStop)
      << "the reset never reached the server";
  EXPECT_EQ(origin.tls().handshakes, 1);

  // Alone on its connection. Unreset, the stream would take what its
  // flow-control window holds (megabytes) and stay open on the server.
  auto lonely = flume::FLHttpRequest::create(origin.url(longBody + "&alone"));
  auto lonelyResult = std::async(std::launch::async, [&] { return fetch(lonely); });
  ASSERT_TRUE(
      velora_test::waitFor([&] { return origin.sentBytes("/bytes/209715200") > afterStop; }));
  const int64_t atCancel = origin.sentBytes("/bytes/209715200");
  flume::FLHttpSession::getSession()->cancel(lonely);
  EXPECT_EQ(lonelyResult.get().errorCode, 42);
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  EXPECT_LT(origin.sentBytes("/bytes/209715200") - atCancel, 2 << 20);
}

// An upload the server never processed cannot be sent again (its body is a
// stream already read): it fails once, and the processed ones succeed.
TEST(FlumeTls, AGoawayFailsTheUploadsTheServerDidNotProcess) {
  OriginServer origin(Transport::kHttpsH2);
  std::vector<std::future<FetchResult>> pending;
  for (int i = 0; i < 4; ++i) {
    pending.push_back(std::async(std::launch::async, [&origin] {
      auto request = flume::FLHttpRequest::create(origin.url("/hold?group=up&n=4&goaway=2"));
      request->setMethod("POST");
      auto body = flume::FLDataStream::create();
      request->setBodyStream(body);
      static char text[] = "uploaded";
      body->write(text, sizeof text - 1, true);
      return fetch(request);
    }));
  }
  int answered = 0, failed = 0;
  for (auto& each : pending) {
    FetchResult result = each.get();
    EXPECT_EQ(std::count(result.events.begin(), result.events.end(), 'E') +
                  std::count(result.events.begin(), result.events.end(), 'F'),
              1);
    if (result.errorCode == 0 && result.body == "held up")
      ++answered;
    else if (result.errorCode != 0)
      ++failed;
  }
  nlohmann::json group = nlohmann::json::parse(fetch(origin.httpUrl("/__hold?group=up")).body);
  EXPECT_EQ(answered, 2);
  EXPECT_EQ(failed, 2);
  EXPECT_EQ(group["arrived"].get<int>(), 4) << "an unprocessed upload was sent again";
}

// Fetches VELORA_TEST_TARGET on a fresh session: 0 for the pattern body, 2
// for a certificate refused, 1 otherwise.
VELORA_CHILD(FetchTarget) {
  FetchResult result = fetch(std::getenv("VELORA_TEST_TARGET"));
  if (result.status == 200 && result.body == patternBytes(0, 10))
    return 0;
  return result.errorMessage.find("certificate") != std::string::npos ? 2 : 1;
}

TEST(FlumeTls, OnlyTheRootsFileAddsTrustAndMappedNamesNeedNoDns) {
  OriginServer origin(Transport::kHttpsH2);
  const std::string url = origin.url("/bytes/10");
  using velora_test::runChild;
  // The system store alone does not know the run's root; a roots file that
  // cannot be read adds nothing.
  EXPECT_EQ(runChild("FetchTarget", {{"VELORA_TEST_TARGET", url}, {"VELORA_CA_FILE", ""}}), 2);
  EXPECT_EQ(runChild("FetchTarget",
                     {{"VELORA_TEST_TARGET", url}, {"VELORA_CA_FILE", "/nonexistent/roots.pem"}}),
            2);
  EXPECT_EQ(runChild("FetchTarget", {{"VELORA_TEST_TARGET", url}}), 0);
  // A name under .test, answered by the mapping; the certificate covers it.
  const std::string named =
      "https://shop.velora.test:" + std::to_string(origin.port()) + "/bytes/10";
  EXPECT_EQ(runChild("FetchTarget",
                     {{"VELORA_TEST_TARGET", named},
                      {"VELORA_RESOLVE", "not an entry,x=not-an-address,*.test=127.0.0.1"}}),
            0);
}

TEST(FlumeHostMap, MatchesNamesAndSuffixesWithoutCaseAndIgnoresBadEntries) {
  flume::HostMap map("api.example=10.0.0.1, *.Test=127.0.0.1,bad,x=300.1.1.1,y=::1,*.=1.2.3.4");
  EXPECT_EQ(map.addressOf("API.example"), "10.0.0.1");
  EXPECT_EQ(map.addressOf("www.example"), "");
  EXPECT_EQ(map.addressOf("news.harbor.test"), "127.0.0.1");
  EXPECT_EQ(map.addressOf("test"), "") << "the suffix alone is no name under it";
  EXPECT_EQ(map.addressOf("evil-test"), "");
  EXPECT_EQ(map.addressOf("y"), "::1");
  EXPECT_EQ(map.addressOf("x"), "");
}
