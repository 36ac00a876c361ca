// The outgoing-request abstraction over the HTTP carrier: what a receiver
// gets, and what happens when nobody is there to get it.
#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "hilog/log.h"
#include "network/buffer.h"
#include "network/net_service.h"
#include "origin_server.h"
#include "test_support.h"

using velora::HeaderMultimap;
using velora::NetService;

namespace {

// Records the calls it gets as letters: R(esponse) D(ata) F(inish) E(rror).
class Recorder final : public velora::NetRequestCallBack {
 public:
  void onResponse(int status, const HeaderMultimap& headers) override {
    calls += 'R';
    this->status = status;
    this->headers = headers;
  }
  void onData(const unsigned char* data, unsigned long length) override {
    if (calls.back() != 'D')
      calls += 'D';
    body.append(reinterpret_cast<const char*>(data), length);
  }
  void onFinish() override {
    calls += 'F';
    ended.set_value();
  }
  void onError(int code, ArkWeb_NetError netError, const std::string& message) override {
    calls += 'E';
    errorCode = code;
    this->netError = netError;
    this->message = message;
    ended.set_value();
  }

  std::string calls;
  int status = 0;
  HeaderMultimap headers;
  std::string body;
  int errorCode = 0;
  ArkWeb_NetError netError = ARKWEB_NET_OK;
  std::string message;
  std::promise<void> ended;
};

std::shared_ptr<Recorder> send(const std::string& url, const std::string& method = "GET") {
  auto recorder = std::make_shared<Recorder>();
  auto request = NetService::createNetRequest(url, recorder);
  request->setMethod(method);
  request->sendRequest();
  recorder->ended.get_future().wait();
  return recorder;
}

}  // namespace

TEST(NetService, ReceiverGetsResponseDataThenFinishOrError) {
  velora_test::OriginServer origin;
  auto ok = send(origin.url("/headers"));
  EXPECT_EQ(ok->calls, "RDF");
  EXPECT_EQ(ok->headers["Set-Cookie"],
            (std::list<std::string>{"a=1; Path=/", "b=2; Path=/", "c=3; Path=/"}));

  auto reset = send(origin.url("/reset?after=500"));
  EXPECT_EQ(reset->calls, "RDE");
  EXPECT_EQ(reset->body, velora_test::patternBytes(0, 500));
  EXPECT_EQ(reset->netError, ARKWEB_ERR_FAILED);
  EXPECT_EQ(reset->errorCode, 56);  // the carrier's own code passes through

  auto request = NetService::createNetRequest(origin.url("/bytes/1"), std::make_shared<Recorder>());
  EXPECT_EQ(request->name(), "FlumeRequest");
  EXPECT_EQ(request->getUrl(), origin.url("/bytes/1"));
}

TEST(NetService, ResultsForAReceiverThatIsGoneAreDroppedAndTheListenerStillEnds) {
  velora_test::OriginServer origin;
  velora_test::HilogCapture hilog;
  OH_LOG_SetMinLogLevel(LOG_DEBUG);
  {
    auto receiver = std::make_shared<Recorder>();
    auto request = NetService::createNetRequest(origin.url("/bytes/100000"), receiver);
    receiver.reset();  // gone before the request is sent
    request->sendRequest();
  }
  // The function form keeps no proxy alive: its slots are never called.
  bool called = false;
  auto request = NetService::createNetRequest(
      origin.url("/bytes/10"), [&](int, const HeaderMultimap&) { called = true; }, nullptr,
      [&] { called = true; }, nullptr);
  request->sendRequest();
  EXPECT_TRUE(velora_test::waitFor([&] {
    auto lines = hilog.lines();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
             return line.find("~FlumeRequestListener") != std::string::npos;
           }) == 2;
  }));
  EXPECT_FALSE(called);
  OH_LOG_SetMinLogLevel(LOG_INFO);
}

TEST(NetService, ProxyForwardsToItsSlotsAndSkipsEmptyOnes) {
  std::string seen;
  velora::NetRequestCallBackProxy proxy(
      [&](int status, const HeaderMultimap&) { seen += "R" + std::to_string(status); }, nullptr,
      [&] { seen += "F"; }, nullptr);
  const unsigned char byte = 'x';
  proxy.onResponse(204, {});
  proxy.onData(&byte, 1);
  proxy.onError(7, ARKWEB_ERR_FAILED, "ignored");
  proxy.onFinish();
  EXPECT_EQ(seen, "R204F");

  std::unique_ptr<unsigned char[]> empty(velora::Buffer::copyData("", 0));
  EXPECT_NE(empty, nullptr);
  std::unique_ptr<unsigned char[]> copy(velora::Buffer::copyData("ab\0c", 4));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(copy.get()), 4), std::string("ab\0c", 4));
}
