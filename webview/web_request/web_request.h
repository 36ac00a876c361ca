// One intercepted resource request of a bound page: decides where the answer
// comes from and feeds it back into the web engine.
#ifndef VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_H
#define VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_H

#include <atomic>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "network/net_request.h"
#include "scheme/web_info.h"
#include "web/arkweb_scheme_handler.h"

namespace velora {

// Always owned by std::shared_ptr: by the request holder attached to the
// engine's request (from the start callback to the stop callback), and for
// the length of each delivery by whoever answers (a carrier's listener, the
// offline cache, a prefetch replay). Delivery goes on after the stop
// callback; the object lives until its last owner lets go.
class WebRequest : public NetRequestCallBack, public std::enable_shared_from_this<WebRequest> {
 public:
  WebRequest(std::shared_ptr<WebInfo> webInfo,
             const ArkWeb_ResourceRequest* request,
             const ArkWeb_ResourceHandler* resourceHandler);
  virtual ~WebRequest();

  // Answers, from whichever source; called in order by that source:
  // onResponse, onData..., then onFinish or onError.
  void onResponse(int statusCode, const HeaderMultimap& headers) override;
  void onData(const unsigned char* data, unsigned long length) override;
  void onFinish() override;
  void onError(int code, ArkWeb_NetError error, const std::string& message) override;

  // Decides where the answer comes from and starts it. Once, on the engine's
  // scheme-handler thread, right after the object is attached to the request.
  void CoreStart();
  // The engine's stop callback: marks the object stopped, and lets go of a
  // claimed prefetch's transfer (which stops once nothing else holds it).
  void CoreStop() {
    stopped_ = true;
    prefetchHold_.reset();
  }
  // Releases the outgoing request.
  void netStop();
  void netStart() {}

  std::shared_ptr<WebRequest> getSharedRequest() { return shared_from_this(); }
  // True when this main-frame request takes over the page's prefetch.
  bool checkPrefetchUrl();
  // Sends the request over the network. For a request with a body, on the
  // engine's IO thread only: the body stream is set up here.
  void sendNetRequest();
  // GETs without a body only: answers from the offline packages, else from
  // the network.
  void sendStrataRequest();

  // Exempts the page of `url` (without its query) from interception from now
  // on, also in later runs. `a` and `b` are only logged.
  void addToRuntimeWhiteList(const std::string& url, const std::string& a, const std::string& b);

  // Analytics points.
  void reportPrefetchStats(const std::string& url, int hit);
  void reportNetError(const std::string& url, int code, const std::string& message);

  static int64_t getTimeDiff(const timespec& start, const timespec& end);

  // Upload pump, registered on the engine's body stream; the stream's user
  // data is the WebRequest. Both run on the engine's IO thread. A request
  // with a body is sent from InitCallback, once the body can be read.
  static void InitCallback(const ArkWeb_HttpBodyStream* stream, ArkWeb_NetError result);
  static void ReadCallback(const ArkWeb_HttpBodyStream* stream, uint8_t* buffer, int bytesRead);

  const std::string& tag() const { return tag_; }
  uint64_t id() const { return id_; }

 private:
  void destroyArkWebRequest();
  void destroyArkWebResponse();
  void destroyArkWebBody();
  void destroyBodyData();
  // The engine's body stream and the read buffer, once the upload is over.
  void releaseBody();
  void destroyInternal() { destroyBodyData(); }
  void copyRequestHeaders();
  void logPrefetchHit();
  void readNextBodyPart();
  // Gives the outgoing request an empty last piece and lets go of the stream.
  void endBody();
  // The body stream could not be initialized (`result`): lets go of it and
  // fails the page; the outgoing request is never sent. bodyCallbackMutex_ held.
  void failBodyInit(int result);
  void logBodyRead(const char* event, int bytesRead, bool eof) const;

  timespec startTime_{};
  timespec endTime_{};
  bool isMainFrame_ = false;
  ArkWeb_ResourceRequest* request_;          // owned: destroyed with the object
  ArkWeb_ResourceHandler* resourceHandler_;  // owned: destroyed with the object
  ArkWeb_Response* response_ = nullptr;      // null until a response is delivered
  // Taken by whichever side destroys the stream first (the pump at its end,
  // or the destructor).
  std::atomic<ArkWeb_HttpBodyStream*> bodyStream_{nullptr};
  // Held by the body callbacks while they run, so the destructor can wait
  // for one that runs on the engine's worker thread.
  std::mutex bodyCallbackMutex_;
  struct {
    uint8_t* buffer = nullptr;
    int size = 0;
    int readSize = 0;
  } bodyData_;
  char* url_ = nullptr;  // engine strings, released on destruction
  char* method_ = nullptr;
  char* referrer_ = nullptr;
  std::map<std::string, std::string> headers_;  // sent on the outgoing request
  uint64_t receivedBytes_ = 0;
  bool stopped_ = false;
  std::atomic<bool> netStopped_{false};
  // Read and cleared from the carrier's and the engine's threads.
  std::shared_ptr<NetRequest> netRequest_;
  std::shared_ptr<WebInfo> webInfo_;
  // The claimed prefetch's request and listener, from the claim to the stop:
  // removing the prefetch meanwhile does not cut this page off.
  std::shared_ptr<void> prefetchHold_;
  const uint64_t id_;
  const std::string tag_;  // "[webTag|id]", the id of every log entry
};

// The process-wide request counter: the first request has id 1.
uint64_t getNextWebRequestId();

}  // namespace velora

#endif  // VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_H
