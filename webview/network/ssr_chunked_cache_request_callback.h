#ifndef VELORA_WEBVIEW_NETWORK_SSR_CHUNKED_CACHE_REQUEST_CALLBACK_H
#define VELORA_WEBVIEW_NETWORK_SSR_CHUNKED_CACHE_REQUEST_CALLBACK_H

#include "network/net_request.h"

namespace velora {

// The second face of a receiver: the live network status and headers of a
// server-rendered response whose body the engine already started from a
// cached first chunk. Found on a receiver by a run-time cast.
class SSRChunkedCacheRequestCallBack {
 public:
  virtual void onNetResponse(int statusCode, const HeaderMultimap& headers) = 0;

 protected:
  ~SSRChunkedCacheRequestCallBack() = default;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_SSR_CHUNKED_CACHE_REQUEST_CALLBACK_H
