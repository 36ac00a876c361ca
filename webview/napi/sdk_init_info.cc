#include "napi/sdk_init_info.h"

namespace velora {

// Never destroyed: the engine's and the carriers' threads may still read it
// while the process exits.
SdkInitInfo& SdkInitInfo::getInstance() {
  static SdkInitInfo* instance = new SdkInitInfo();
  return *instance;
}

void SdkInitInfo::setAppTag(const std::string& tag) {
  std::lock_guard<std::mutex> lock(mutex_);
  appTag_ = tag;
}

std::string SdkInitInfo::getAppTag() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return appTag_;
}

void SdkInitInfo::setAppVersion(const std::string& version) {
  std::lock_guard<std::mutex> lock(mutex_);
  appVersion_ = version;
}

std::string SdkInitInfo::getAppVersion() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return appVersion_;
}

}  // namespace velora
