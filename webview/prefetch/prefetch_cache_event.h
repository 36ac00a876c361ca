#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_CACHE_EVENT_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_CACHE_EVENT_H

#include <any>
#include <cstdint>
#include <vector>

namespace velora {

// Parameters, in order: RESPONSE and SILENT_RESPONSE (int status, header
// multimap); DATA (std::shared_ptr<unsigned char> owning a copy, unsigned
// long length); ERROR (int code, ArkWeb_NetError, std::string message);
// FINISH none. SILENT_RESPONSE is replayed to nobody.
enum PrefetchCacheEventType : int32_t {
  RESPONSE = 0,
  DATA = 1,
  ERROR = 2,
  FINISH = 3,
  SILENT_RESPONSE = 4,
};

// One recorded event of a prefetch's response.
class PrefetchCacheEvent {
 public:
  PrefetchCacheEvent(PrefetchCacheEventType type, std::vector<std::any> params)
      : eventType_(type), eventParams_(std::move(params)) {}

  PrefetchCacheEventType getEventType() const { return eventType_; }
  std::vector<std::any> getEventParams() const { return eventParams_; }
  // The parameters without a copy, for the replay.
  const std::vector<std::any>& params() const { return eventParams_; }

 private:
  PrefetchCacheEventType eventType_;
  std::vector<std::any> eventParams_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_CACHE_EVENT_H
