// The SSR gateway carrier: a NetRequest over gantry_ssr.
#ifndef VELORA_WEBVIEW_NETWORK_SSR_REQUEST_H
#define VELORA_WEBVIEW_NETWORK_SSR_REQUEST_H

#include <atomic>
#include <memory>
#include <string>

#include "first_chunk/ssr_service.h"
#include "gantry_ssr/ssr_service.h"
#include "network/net_request.h"
#include "network/ssr_chunked_cache_request_callback.h"

namespace velora {

// Turns the gateway's events into receiver calls; a receiver that is gone
// gets nothing.
class SSRRequestListener : public gantry_ssr::SsrListener, public SSRChunkedCacheRequestCallBack {
 public:
  explicit SSRRequestListener(std::weak_ptr<NetRequestCallBack> callback)
      : callback_(std::move(callback)) {}
  ~SSRRequestListener() override;

  void onResponse(std::shared_ptr<gantry_ssr::SsrRequest> request,
                  int statusCode,
                  const HeaderMultimap& headers) override;
  void onReceiveData(std::shared_ptr<gantry_ssr::SsrRequest> request,
                     const std::string& data) override;
  // The engine is always told ARKWEB_ERR_FAILED.
  void onError(std::shared_ptr<gantry_ssr::SsrRequest> request,
               std::shared_ptr<gantry_ssr::SsrResponse> response) override;
  void onFinish(std::shared_ptr<gantry_ssr::SsrRequest> request) override;
  // To receivers that want the live status of a cached-first-chunk answer.
  void onNetResponse(int statusCode, const HeaderMultimap& headers) override;

 private:
  std::weak_ptr<NetRequestCallBack> callback_;
};

// Sends carry the client description ("kp-client-context") and, when the
// page URL asks for it, the answers of local ability calls ("api-context").
// SSR requests have no body. A send runs on the SsrSendPool, never on the
// caller's thread: the ability calls and the first-chunk store may block.
class SSRRequest : public NetRequest {
 public:
  explicit SSRRequest(std::shared_ptr<NetRequestCallBack> callback)
      : NetRequest(std::move(callback)) {}
  ~SSRRequest() override;

  // First: the other setters write into the request it creates.
  void setUrl(const std::string& url) override;
  std::string getUrl() override;
  // Exactly "POST" is a POST; anything else a GET.
  void setMethod(const std::string& method) override;
  // Repeated names are added, not replaced.
  void setHeader(const std::string& name, const std::string& value) override;
  void createRequestBody() override {}
  void setRequestBodyData(const unsigned char*, int, bool) override {}
  // Returns at once; the request leaves from the send pool.
  void sendRequest() override;
  // Stops the call, whether it has left yet or not; the receiver hears
  // nothing more. Also done by the destructor.
  void cancel() override;
  std::string name() override { return "SSRRequest"; }

 private:
  // Shared with the queued send, which outlives nothing it does not hold.
  struct SendState {
    std::atomic<bool> cancelled{false};
    std::atomic<bool> sent{false};
  };

  std::shared_ptr<gantry_ssr::SsrRequest> request_;
  std::shared_ptr<SendState> state_ = std::make_shared<SendState>();
  std::shared_ptr<SSRRequestListener> listener_;
  // Keeps the service, and so a first-chunk handler, alive with the request.
  std::shared_ptr<SSRService> service_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_SSR_REQUEST_H
