// The process-wide registry of prefetches: starts them, finds them, hands
// their recording over to a page, forgets them.
#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_NETWORK_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_NETWORK_H

#include <memory>
#include <string>

#include "napi/native_api.h"
#include "network/net_request_callback_proxy.h"
#include "prefetch/prefetch_request.h"

namespace velora {

// Three maps by prefetch id (recordings, outgoing requests, listeners), each
// behind its own recursive mutex held for one access at a time. An entry
// lives until removePrefetch: nothing expires by time, and an unclaimed
// recording is held whole.
class PrefetchNetwork {
 public:
  // Starts fetching `request` (url, method, headers over the defaults) and
  // returns its new id. `callback`, which may be null, hears the response
  // before any page does.
  static std::string startPrefetch(std::shared_ptr<PrefetchRequest> request,
                                   std::shared_ptr<NetRequestCallBack> callback);
  static std::string startPrefetch(std::shared_ptr<PrefetchRequest> request,
                                   NetRequestCallBackProxy::OnResponse onResponse,
                                   NetRequestCallBackProxy::OnData onData,
                                   NetRequestCallBackProxy::OnFinish onFinish,
                                   NetRequestCallBackProxy::OnError onError);
  // The registry's description (id, final headers, send time), or null.
  static std::shared_ptr<PrefetchRequest> getPrefetchRequest(const std::string& id);
  // Hands the recording, then the live rest, to `callback`: true for the
  // first consumer of a registered id only.
  static bool consumePrefetch(const std::string& id, std::shared_ptr<NetRequestCallBack> callback);
  // Forgets `id`; true when it was registered. The transfer goes on only as
  // long as something else holds it (a page that claimed it, see keepAlive):
  // otherwise it stops.
  static bool removePrefetch(const std::string& id);
  // Holds the prefetch's request and the listener that records it, so that a
  // page that claims it keeps receiving it after the id is removed. Empty
  // for an unknown id.
  static std::shared_ptr<void> keepAlive(const std::string& id);
  // The web engine's cookie for `url`, through "@ohos.web.webview". Script
  // thread of `env` only.
  static std::string getCookieFromNapi(napi_env env, const std::string& url);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_NETWORK_H
