// The receiver of a prefetch's own request: fans every event out to the
// prefetch's receiver and its recording, and unregisters the prefetch when
// the registry entry is of no more use.
#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_LISTENER_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_LISTENER_H

#include <atomic>
#include <memory>

#include "network/net_request.h"
#include "network/ssr_chunked_cache_request_callback.h"
#include "prefetch/prefetch_request.h"
#include "prefetch/prefetch_request_cache.h"

namespace velora {

// Network threads. The prefetch's receiver hears each event before the
// recording (and so before any consumer of it).
class PrefetchRequestListener : public NetRequestCallBack, public SSRChunkedCacheRequestCallBack {
 public:
  explicit PrefetchRequestListener(std::shared_ptr<PrefetchRequest> request)
      : request_(std::move(request)) {}
  virtual ~PrefetchRequestListener();

  void setRequestCallBack(std::shared_ptr<NetRequestCallBack> callback) {
    requestCallBack_ = std::move(callback);
  }
  void setRequestCache(std::shared_ptr<PrefetchRequestCache> cache) {
    requestCache_ = std::move(cache);
  }

  void onResponse(int statusCode, const HeaderMultimap& headers) override;
  void onData(const unsigned char* data, unsigned long length) override;
  // A claimed response that ends is unregistered; an unclaimed one stays for
  // its page.
  void onFinish() override;
  // Unregisters the prefetch, claimed or not: a later page asks the network.
  void onError(int code, ArkWeb_NetError error, const std::string& message) override;
  // The live status of a first-chunk response: to the receiver only.
  void onNetResponse(int statusCode, const HeaderMultimap& headers) override;

  // The prefetch was removed: a receiver that has not heard the end yet gets
  // an error now, as the transfer stops (unless a page holds it). Any thread.
  void abandon();

 private:
  void logEvent(const char* event) const;

  std::shared_ptr<PrefetchRequest> request_;
  // Whether the receiver has had its last event; it gets exactly one.
  bool receiverEnded() { return receiverEnded_.exchange(true); }

  std::shared_ptr<NetRequestCallBack> requestCallBack_;  // may be null
  std::atomic<bool> receiverEnded_{false};
  std::shared_ptr<PrefetchRequestCache> requestCache_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_LISTENER_H
