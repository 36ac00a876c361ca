#ifndef VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_LISTENER_H
#define VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_LISTENER_H

#include <memory>

#include "flume/flume.h"
#include "network/net_request.h"

namespace velora {

// Turns flume's session events into receiver calls. Made by
// FlumeRequest::sendRequest; deletes itself after the finish or error event.
class FlumeRequestListener : public flume::IFLHttpSessionListener {
 public:
  explicit FlumeRequestListener(std::weak_ptr<NetRequestCallBack> callback)
      : callback_(std::move(callback)) {}
  ~FlumeRequestListener() override;

  void onFLHttpSentCompleted(const flume::FLHttpRequest&, bool) override {}
  void onFLHttpResponse(const flume::FLHttpRequest& request,
                        const std::shared_ptr<flume::FLHttpResponse>& response) override;
  // Redirects are the web engine's to follow.
  bool onFLHttpWillRedirection(const flume::FLHttpRequest&,
                               const flume::FLHttpRequest&,
                               const std::shared_ptr<flume::FLHttpResponse>&) override {
    return false;
  }
  void onFLHttpAuthenticationChallenge(const flume::FLHttpRequest& request,
                                       const flume::FLHttpAuthenticationChallenge&) override;
  void onFLHttpReceiveData(const flume::FLHttpRequest& request,
                           const std::shared_ptr<flume::FLData>& data) override;
  void onFLHttpError(const flume::FLHttpRequest& request,
                     const std::shared_ptr<flume::FLError>& error) override;
  void onFLHttpCollectingMetrics(const flume::FLHttpRequest&,
                                 const flume::FLHttpMetrics&) override {}
  void onFLHttpFinish(const flume::FLHttpRequest& request) override;

 private:
  std::weak_ptr<NetRequestCallBack> callback_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_LISTENER_H
