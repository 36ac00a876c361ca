// The interception policy: which requests of bound pages Velora answers and
// which it leaves to the web engine ("white" always means: leave it).
#ifndef VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H
#define VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>

namespace velora {

// Set from the script thread and the configuration paths, read on the web
// engine's thread for every request. The lists are guarded by a mutex; the
// flags are atomics.
class InterceptManager {
 public:
  static InterceptManager& getInstance();

  // Applies the remote configuration, or the copy saved by an earlier run when
  // there is none yet, and subscribes to remote updates. Once per sdkInit.
  void init();

  void setInterceptEnable(bool enable) { interceptEnable_.store(enable); }
  bool isInterceptEnable() const { return interceptEnable_.load(); }
  void setOnlyMainHtml(bool only) { onlyMainHtml_.store(only); }
  bool onlyMainHtml() const { return onlyMainHtml_.load(); }
  void setInterceptMimeType(bool check) { interceptMimeType_.store(check); }
  bool isInterceptMimeType() const { return interceptMimeType_.load(); }

  // Replace the whole list.
  void setWhiteUrlList(std::list<std::string> urls);
  void setWhiteMethods(std::list<std::string> methods);

  // True when `url` contains an entry of the white URL list (byte-wise).
  bool isInWhiteList(const std::string& url) const;
  bool hasWhiteMethods() const;
  // True when `method` equals an entry exactly (case-sensitive).
  bool isInWhiteMethod(const std::string& method) const;

  // Runtime white list: URLs the module itself decided to leave to the
  // engine. Persisted under "runtimeUrls", loaded on first use.
  void checkAndUpdateRuntimeList();
  void addUrlToRuntimeList(const std::string& url);
  bool isInRuntimeList(const std::string& url);
  void updateRuntimeList();
  void saveRuntimeWhiteList();

  // Remote configuration. `from` ("remote" or "local") is only logged.
  void updateTesseraConfig(const std::string& from,
                           const std::function<std::string(const std::string&)>& getValue);
  bool updateTesseraConfigFromRemote();
  void updateTesseraConfigFromLocal();
  void updateTesseraConfigFromLocalAsync();
  void saveTesseraConfig(const std::map<std::string, std::string>& config);
  void registerTesseraListener();

 private:
  InterceptManager() = default;

  // Replaces `list` with the string elements of the JSON array in `text`.
  void updateListConfig(const char* event,
                        const std::string& text,
                        const std::string& enableText,
                        const std::string& from,
                        std::list<std::string>& list);
  void loadRuntimeListLocked();
  void saveRuntimeListLocked();

  mutable std::mutex mutex_;
  bool runtimeListLoaded_ = false;         // guarded by mutex_
  std::list<std::string> whiteUrlList_;    // guarded by mutex_
  std::list<std::string> runtimeUrlList_;  // guarded by mutex_
  std::list<std::string> whiteMethods_;    // guarded by mutex_
  std::atomic<bool> interceptEnable_{true};
  std::atomic<bool> onlyMainHtml_{false};
  std::atomic<bool> interceptMimeType_{false};
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H
