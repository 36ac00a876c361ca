// Process-wide facts about the host application, set by sdkInit.
#ifndef VELORA_WEBVIEW_NAPI_SDK_INIT_INFO_H
#define VELORA_WEBVIEW_NAPI_SDK_INIT_INFO_H

#include <atomic>
#include <mutex>
#include <string>

namespace velora {

// Written on the script thread, read on request threads; all empty/false
// until sdkInit.
class SdkInitInfo {
 public:
  static SdkInitInfo& getInstance();

  void setAppTag(const std::string& tag);
  std::string getAppTag() const;
  void setAppVersion(const std::string& version);
  std::string getAppVersion() const;
  void setDebug(bool debug) { debug_.store(debug, std::memory_order_relaxed); }
  bool isDebug() const { return debug_.load(std::memory_order_relaxed); }

 private:
  SdkInitInfo() = default;

  mutable std::mutex mutex_;
  std::string appTag_;      // guarded by mutex_
  std::string appVersion_;  // guarded by mutex_
  std::atomic<bool> debug_{false};
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NAPI_SDK_INIT_INFO_H
