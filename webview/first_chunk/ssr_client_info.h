// The screen description that SSR requests carry in "kp-client-context".
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_SSR_CLIENT_INFO_H
#define VELORA_WEBVIEW_FIRST_CHUNK_SSR_CLIENT_INFO_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace velora {

// Class-wide values are written by the script API and copied on request
// threads; a copy may mix old and new values of a concurrent update.
class SSRClientInfo {
 public:
  static void setWidth(int32_t width) { sharedWidth_.store(width, std::memory_order_relaxed); }
  static void setHeight(int32_t height) { sharedHeight_.store(height, std::memory_order_relaxed); }
  static void setLandscape(bool landscape) {
    sharedLandscape_.store(landscape, std::memory_order_relaxed);
  }
  static void setSafeAreaHeight(int32_t height) {
    sharedSafeAreaHeight_.store(height, std::memory_order_relaxed);
  }
  static void setDeviceRatio(float ratio) {
    sharedDeviceRatio_.store(ratio, std::memory_order_relaxed);
  }

  // A snapshot of the class-wide values; never null.
  static std::shared_ptr<SSRClientInfo> getClientInfo();

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  bool landscape() const { return landscape_; }
  int32_t safeAreaHeight() const { return safeAreaHeight_; }
  float deviceRatio() const { return deviceRatio_; }

  // "w=1260&h=2720&ls=0&sh=120&dpr=3.250000&dl=0". dl is always 0: the
  // gateway expects the field.
  std::string toString() const;

 private:
  int32_t width_ = 0;
  int32_t height_ = 0;
  bool landscape_ = false;
  int32_t safeAreaHeight_ = 0;
  float deviceRatio_ = 0.0f;
  int32_t dl_ = 0;

  static std::atomic<int32_t> sharedWidth_;
  static std::atomic<int32_t> sharedHeight_;
  static std::atomic<bool> sharedLandscape_;
  static std::atomic<int32_t> sharedSafeAreaHeight_;
  static std::atomic<float> sharedDeviceRatio_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_SSR_CLIENT_INFO_H
