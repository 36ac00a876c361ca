// The recording of a prefetch's response, replayed to the first consumer.
#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_CACHE_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_CACHE_H

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

#include "network/net_request.h"
#include "prefetch/prefetch_cache_event.h"
#include "prefetch/prefetch_request.h"

namespace velora {

// Records every event in arrival order until consume(); the claim replays
// the recording to the consumer and from then on forwards each event. The
// consumer's operations run with mutex_ held, so a live event that arrives
// during the replay waits and comes after the last recorded one; they must
// not call back into this cache.
//
// Invariant: while hasConsumed_ is false, consumer_ is null and every event
// is in events_; once it is true, events_ is empty for good.
class PrefetchRequestCache final : public NetRequestCallBack {
 public:
  explicit PrefetchRequestCache(std::shared_ptr<PrefetchRequest> request)
      : request_(std::move(request)) {}

  std::shared_ptr<PrefetchRequest> getPrefetchRequest() const { return request_; }

  // Network threads: record, or forward once consumed.
  void onResponse(int statusCode, const HeaderMultimap& headers) override;
  void onData(const unsigned char* data, unsigned long length) override;
  void onFinish() override;
  void onError(int code, ArkWeb_NetError error, const std::string& message) override;

  // True for the first claim only; replays the recording into `callback`
  // (not null) before returning.
  bool consume(std::shared_ptr<NetRequestCallBack> callback);
  // Read without the lock: reliable only after this cache's onFinish returned.
  bool isConsumed() const { return hasConsumed_.load(); }
  // Bytes held by the recording now (0 once consumed): an unclaimed
  // recording is kept whole, so this is what a forgotten prefetch costs.
  unsigned long recordedBytes();

 private:
  void logEvent(const char* event) const;
  // Before the claim appends an event of `type` with the parameters
  // `params()` makes; after it calls `forward` with the consumer. Under mutex_.
  template <typename Params, typename Forward>
  void recordOrForward(PrefetchCacheEventType type, Params params, Forward forward);
  // Prefetches the next events' memory, a level deeper the nearer the event.
  void warmAhead() const;
  void replay(const PrefetchCacheEvent& event);

  std::shared_ptr<PrefetchRequest> request_;
  std::shared_ptr<NetRequestCallBack> consumer_;            // guarded by mutex_
  std::atomic<bool> hasConsumed_{false};                    // written under mutex_
  std::deque<std::shared_ptr<PrefetchCacheEvent>> events_;  // guarded by mutex_
  unsigned long recordedBytes_ = 0;                         // guarded by mutex_
  bool recordingEnded_ = false;  // a FINISH or ERROR was recorded; guarded by mutex_
  std::mutex mutex_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_CACHE_H
