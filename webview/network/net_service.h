#ifndef VELORA_WEBVIEW_NETWORK_NET_SERVICE_H
#define VELORA_WEBVIEW_NETWORK_NET_SERVICE_H

#include <memory>
#include <string>

#include "network/net_request_callback_proxy.h"

namespace velora {

// Makes the carrier for a URL: the SSR gateway for the URLs it accepts, the
// HTTP carrier for every other. Stateless; any thread.
class NetService {
 public:
  // True when the SSR gateway accepts `url`.
  static bool isSSR(const std::string& url);

  // A request for `url` (already set) reporting to `callback`, held weakly.
  static std::shared_ptr<NetRequest> createNetRequest(const std::string& url,
                                                      std::shared_ptr<NetRequestCallBack> callback);

  // The same with a proxy receiver over four functions. Nothing keeps the
  // proxy alive once this returns, so its results are dropped: callers that
  // want them hold a receiver of their own.
  static std::shared_ptr<NetRequest> createNetRequest(
      const std::string& url,
      NetRequestCallBackProxy::OnResponse onResponse,
      NetRequestCallBackProxy::OnData onData,
      NetRequestCallBackProxy::OnFinish onFinish,
      NetRequestCallBackProxy::OnError onError);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_NET_SERVICE_H
