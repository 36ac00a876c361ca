// The interception policy: which requests of bound pages Velora answers and
// which it leaves to the web engine ("white" always means: leave it).
#ifndef VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H
#define VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace velora {

// The switches and lists, as one value: a request decides against one of
// these, never against half of an update.
struct InterceptPolicy {
  bool interceptEnable = true;
  bool onlyMainHtml = false;
  bool interceptMimeType = false;
  std::list<std::string> whiteUrlList;
  std::list<std::string> whiteMethods;
  // "Ability.api" names a page URL may call through "api-info"; none by
  // default. A link can be written by anyone, so only what the app maker
  // lists here is ever run on a page's behalf.
  std::set<std::string> apiInfoAllowList;

  // True when `url` contains an entry of the white URL list (byte-wise).
  bool isInWhiteList(const std::string& url) const;
  bool hasWhiteMethods() const { return !whiteMethods.empty(); }
  // True when `method` equals an entry exactly (case-sensitive).
  bool isInWhiteMethod(const std::string& method) const;
  bool isApiInfoAllowed(const std::string& name) const { return apiInfoAllowList.count(name) > 0; }
};

// Set from the script thread and the configuration paths, read on the web
// engine's thread for every request. Every change publishes a whole new
// policy at once; the runtime list is guarded by a mutex.
class InterceptManager {
 public:
  static InterceptManager& getInstance();

  // The policy now, whole.
  std::shared_ptr<const InterceptPolicy> policy() const { return std::atomic_load(&policy_); }

  // Applies the remote configuration, or the copy saved by an earlier run when
  // there is none yet, and subscribes to remote updates. Once per sdkInit.
  void init();

  void setInterceptEnable(bool enable) {
    update([enable](InterceptPolicy& p) { p.interceptEnable = enable; });
  }
  bool isInterceptEnable() const { return policy()->interceptEnable; }
  void setOnlyMainHtml(bool only) {
    update([only](InterceptPolicy& p) { p.onlyMainHtml = only; });
  }
  bool onlyMainHtml() const { return policy()->onlyMainHtml; }
  void setInterceptMimeType(bool check) {
    update([check](InterceptPolicy& p) { p.interceptMimeType = check; });
  }
  bool isInterceptMimeType() const { return policy()->interceptMimeType; }

  // Replace the whole list.
  void setWhiteUrlList(std::list<std::string> urls);
  void setWhiteMethods(std::list<std::string> methods);
  void setApiInfoAllowList(std::set<std::string> names);

  bool isInWhiteList(const std::string& url) const { return policy()->isInWhiteList(url); }
  bool hasWhiteMethods() const { return policy()->hasWhiteMethods(); }
  bool isInWhiteMethod(const std::string& method) const {
    return policy()->isInWhiteMethod(method);
  }

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

  // Publishes a copy of the current policy changed by `change`.
  void update(const std::function<void(InterceptPolicy&)>& change);
  // The string elements of the JSON array in `text`; nothing when it is no
  // array (logged).
  std::optional<std::list<std::string>> updateListConfig(const char* event,
                                                         const std::string& text,
                                                         const std::string& enableText,
                                                         const std::string& from);
  void loadRuntimeListLocked();
  void saveRuntimeListLocked();

  mutable std::mutex mutex_;
  bool runtimeListLoaded_ = false;         // guarded by mutex_
  std::list<std::string> runtimeUrlList_;  // guarded by mutex_
  std::mutex updateMutex_;                 // one update of the policy at a time
  std::shared_ptr<const InterceptPolicy> policy_ = std::make_shared<InterceptPolicy>();
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_INTERCEPT_INTERCEPT_MANAGER_H
