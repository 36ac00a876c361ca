// The process-wide switch of the first-chunk cache (tern::Singleton).
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_MANAGER_H
#define VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_MANAGER_H

#include <atomic>

namespace velora {

// Off until the script layer calls setFccEnable(true); read by every SSR
// request as it picks its service.
class FirstChunkManager {
 public:
  bool isEnable() const { return enable_.load(std::memory_order_relaxed); }
  void setEnable(bool enable) { enable_.store(enable, std::memory_order_relaxed); }

 private:
  std::atomic<bool> enable_{false};
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_MANAGER_H
