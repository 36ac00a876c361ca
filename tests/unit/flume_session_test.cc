// The HTTP carrier library against the local origin: what a listener sees.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "flume/flume.h"
#include "flume/host_config.h"
#include "origin_server.h"
#include "test_support.h"
#include "transport_param.h"

using velora_test::fetch;
using velora_test::FetchResult;
using velora_test::OriginServer;
using velora_test::patternBytes;

namespace {

class FlumeSessionOver : public velora_test::OverEachTransport {};

}  // namespace

TEST_P(FlumeSessionOver, BodiesArriveByteExactWithEventsInOrder) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{65536}, size_t{50} << 20}) {
    FetchResult result = fetch(origin.url("/bytes/" + std::to_string(size)));
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.events, size ? "SRDMF" : "SRMF") << size;
    EXPECT_TRUE(result.body == patternBytes(0, size)) << "body of " << size << " bytes differs";
  }
}

TEST_P(FlumeSessionOver, RepeatedFieldsKeepTheirOrderAndDecodedBodiesLoseTheirEncoding) {
  FetchResult headers = fetch(origin.url("/headers"));
  EXPECT_EQ(velora_test::headerValues(headers.headers, "Set-Cookie"),
            (std::vector<std::string>{"a=1; Path=/", "b=2; Path=/", "c=3; Path=/"}));
  EXPECT_EQ(velora_test::headerValues(headers.headers, "X-Multi"),
            (std::vector<std::string>{"first", "second"}));

  FetchResult gzip = fetch(origin.url("/gzip?size=300000"));
  EXPECT_TRUE(gzip.body == patternBytes(0, 300000));
  EXPECT_TRUE(velora_test::headerValues(gzip.headers, "Content-Encoding").empty());
  EXPECT_TRUE(velora_test::headerValues(gzip.headers, "Content-Length").empty());
}

TEST_P(FlumeSessionOver, RedirectsAndErrorStatusesAreDeliveredAsResponses) {
  FetchResult redirect = fetch(origin.url("/redirect?to=/bytes/5&code=307"));
  EXPECT_EQ(redirect.status, 307);
  EXPECT_EQ(velora_test::headerValues(redirect.headers, "Location"),
            (std::vector<std::string>{"/bytes/5"}));
  EXPECT_EQ(origin.count("/bytes/5"), 0);

  FetchResult unavailable = fetch(origin.url("/status/503"));
  EXPECT_EQ(unavailable.status, 503);
  EXPECT_EQ(unavailable.body, "status 503");
  EXPECT_EQ(unavailable.errorCode, 0);
}

TEST_P(FlumeSessionOver, FailuresBeforeAndAfterTheResponse) {
  FetchResult refused =
      fetch("http://127.0.0.1:" + std::to_string(velora_test::refusedPort()) + "/");
  EXPECT_FALSE(refused.responded);
  EXPECT_EQ(refused.events, "SME");
  EXPECT_EQ(refused.errorCode, 7);  // CURLE_COULDNT_CONNECT
  EXPECT_FALSE(refused.errorMessage.empty());

  FetchResult reset = fetch(origin.url("/reset?after=1000"));
  EXPECT_EQ(reset.events, "SRDME");
  EXPECT_EQ(reset.body, patternBytes(0, 1000));
  EXPECT_NE(reset.errorCode, 0);

  auto stalled = flume::FLHttpRequest::create(origin.url("/stall?after=10"));
  stalled->setIdleTimeoutMs(1000);
  FetchResult stall = fetch(stalled);
  EXPECT_EQ(stall.events, "SRDME");
  EXPECT_EQ(stall.errorCode, 28);  // CURLE_OPERATION_TIMEDOUT
}

TEST_P(FlumeSessionOver, StreamedUploadsArriveByteExactWhateverThePieces) {
  for (bool sized : {true, false}) {
    for (size_t size : {size_t{0}, size_t{4095}, size_t{10000}, size_t{3} << 20}) {
      std::string body = patternBytes(3, size);
      auto request = flume::FLHttpRequest::create(origin.url("/echo?raw=1"));
      request->setMethod("PUT");
      if (sized)
        request->setHeadField("Content-Length", std::to_string(size));
      auto stream = flume::FLDataStream::create();
      request->setBodyStream(stream);
      // The producer writes while the transfer runs, in uneven pieces.
      std::thread producer([&] {
        size_t offset = 0;
        for (size_t piece = 1; offset < size; piece = piece * 3 + 1) {
          size_t n = std::min(piece, size - offset);
          stream->write(body.data() + offset, n, offset + n == size);
          offset += n;
          if (piece < 1000)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (size == 0)
          stream->write(nullptr, 0, true);
      });
      FetchResult result = fetch(request);
      producer.join();
      EXPECT_EQ(result.status, 200);
      EXPECT_TRUE(result.body == body) << size << (sized ? " sized" : " chunked");
      // HTTP/2 frames every body: only HTTP/1.1 has chunks.
      const bool chunked = !sized && GetParam() != velora_test::Transport::kHttpsH2;
      EXPECT_EQ(velora_test::headerValues(result.headers, "X-Upload-Chunked")[0],
                chunked ? "true" : "false");
      // No round trip waiting for "100 Continue", with fields of its own or without.
      EXPECT_EQ(velora_test::headerValues(result.headers, "X-Upload-Expect")[0], "none");
    }
  }
}

TEST_P(FlumeSessionOver, ManyConcurrentTransfersShareOneEventThread) {
  constexpr int kTransfers = 1000;
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kTransfers / 4; ++i) {
        FetchResult result = fetch(origin.url("/bytes/1024?i=" + std::to_string(i)));
        if (result.status == 200 && result.body == patternBytes(0, 1024))
          ++finished;
      }
    });
  }
  // A slow transfer does not hold the others back.
  FetchResult slow = fetch(origin.url("/delay?ms=300"));
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(slow.status, 200);
  EXPECT_EQ(finished.load(), kTransfers);
}

TEST_P(FlumeSessionOver, CancelEndsATransferWithAnAbortError) {
  auto request = flume::FLHttpRequest::create(origin.url("/stall?after=10"));
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    flume::FLHttpSession::getSession()->cancel(request);
  });
  FetchResult result = fetch(request);
  canceller.join();
  EXPECT_EQ(result.errorCode, 42);
  EXPECT_EQ(result.events.back(), 'E');
}

TEST_P(FlumeSessionOver, FieldsAndMethodsThatCouldSmuggleLinesNeverReachTheWire) {
  auto request = flume::FLHttpRequest::create(origin.url("/headers"));
  request->setHeadField("X-Plain", "ok");
  request->setHeadField("X-Split", "a\r\nX-Injected: 1");
  request->setHeadField("X-Bare\nX-Injected", "2");
  request->setHeadField("X-Nul", std::string("a\0X-Injected: 3", 16));
  FetchResult sent = fetch(request);
  ASSERT_EQ(sent.status, 200);
  auto seen = nlohmann::json::parse(sent.body);
  EXPECT_EQ(seen["x-plain"], "ok");
  for (const char* name : {"x-split", "x-bare", "x-nul", "x-injected"})
    EXPECT_FALSE(seen.contains(name)) << name;

  auto smuggling = flume::FLHttpRequest::create(origin.url("/echo"));
  smuggling->setMethod("GET /echo HTTP/1.1\r\nX-Injected: 1\r\n\r\nGET");
  FetchResult refused = fetch(smuggling);
  EXPECT_EQ(refused.errorCode, 43);
  EXPECT_EQ(refused.events.back(), 'E');
  EXPECT_EQ(origin.count("/echo"), 0);

  auto unnamed = flume::FLHttpRequest::create(origin.url("/echo"));
  unnamed->setMethod("");
  EXPECT_EQ(nlohmann::json::parse(fetch(unnamed).body)["method"], "GET");
}

TEST_P(FlumeSessionOver, AStalledRequestDoesNotHoldUpTheNextToTheSameHost) {
  std::vector<std::shared_ptr<flume::FLHttpRequest>> stalled;
  std::vector<std::future<FetchResult>> pending;
  for (int i = 0; i < 3; ++i)
    stalled.push_back(flume::FLHttpRequest::create(origin.url("/stall?after=10")));
  for (const auto& request : stalled)
    pending.push_back(std::async(std::launch::async, [request] { return fetch(request); }));
  ASSERT_TRUE(velora_test::waitFor([&] { return origin.count("/stall") == 3; }));
  auto quick = std::async(std::launch::async, [&] { return fetch(origin.url("/bytes/10")); });
  bool answered = quick.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  for (const auto& request : stalled)
    flume::FLHttpSession::getSession()->cancel(request);
  ASSERT_TRUE(answered);
  EXPECT_EQ(quick.get().status, 200);
  for (auto& each : pending)
    EXPECT_EQ(each.get().errorCode, 42);
}

TEST_P(FlumeSessionOver, SilentServersEndInOneErrorAfterTheIdleTimeout) {
  flume::setDefaultTimeouts(2000, 1000);
  for (const char* path : {"/stall?after=100", "/delay?ms=20000"}) {
    auto start = std::chrono::steady_clock::now();
    FetchResult result = fetch(origin.url(path));
    EXPECT_EQ(result.errorCode, 28) << path;
    EXPECT_EQ(std::count(result.events.begin(), result.events.end(), 'E'), 1) << path;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << path;
  }
  // A request's own idle timeout wins over the session's.
  auto patient = flume::FLHttpRequest::create(origin.url("/delay?ms=1500"));
  patient->setIdleTimeoutMs(5000);
  EXPECT_EQ(fetch(patient).status, 200);
  flume::setDefaultTimeouts(30000, 60000);
}

VELORA_OVER_EACH_TRANSPORT(FlumeSessionOver);
