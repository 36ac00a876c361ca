#include "first_chunk/ssr_client_info.h"

namespace velora {

std::atomic<int32_t> SSRClientInfo::sharedWidth_{0};
std::atomic<int32_t> SSRClientInfo::sharedHeight_{0};
std::atomic<bool> SSRClientInfo::sharedLandscape_{false};
std::atomic<int32_t> SSRClientInfo::sharedSafeAreaHeight_{0};
std::atomic<float> SSRClientInfo::sharedDeviceRatio_{0.0f};

std::shared_ptr<SSRClientInfo> SSRClientInfo::getClientInfo() {
  auto info = std::make_shared<SSRClientInfo>();
  info->width_ = sharedWidth_.load(std::memory_order_relaxed);
  info->height_ = sharedHeight_.load(std::memory_order_relaxed);
  info->landscape_ = sharedLandscape_.load(std::memory_order_relaxed);
  info->safeAreaHeight_ = sharedSafeAreaHeight_.load(std::memory_order_relaxed);
  info->deviceRatio_ = sharedDeviceRatio_.load(std::memory_order_relaxed);
  return info;
}

std::string SSRClientInfo::toString() const {
  return "w=" + std::to_string(width_) + "&h=" + std::to_string(height_) +
         "&ls=" + (landscape_ ? "1" : "0") + "&sh=" + std::to_string(safeAreaHeight_) +
         "&dpr=" + std::to_string(deviceRatio_) + "&dl=" + std::to_string(dl_);
}

}  // namespace velora
