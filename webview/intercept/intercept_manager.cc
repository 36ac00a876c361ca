#include "intercept/intercept_manager.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "intercept/intercept_tessera_listener.h"
#include "log_tags.h"
#include "tern/cache_service.h"
#include "tern/executor_service.h"
#include "tern/string_utils.h"
#include "tessera/tessera_config.h"
#include "tide_logger/log.h"
#include "utils/json_utils.h"

namespace velora {
namespace {

constexpr const char* kLogTag = log_tags::kInterceptManager;
constexpr char kNamespace[] = "velora_kpnet_intercept_config";
constexpr char kKeyEnable[] = "enable";
constexpr char kKeyOnlyMainHtml[] = "onlyMainHtml";
constexpr char kKeyInterceptMimeType[] = "interceptMimeType";
constexpr char kKeyWhiteList[] = "whiteList";
constexpr char kKeyMethodList[] = "methodList";
constexpr char kKeyApiInfoAllowList[] = "apiInfoAllowList";
constexpr char kStoreTesseraConfig[] = "tessera_config";
constexpr char kStoreRuntimeUrls[] = "runtimeUrls";
constexpr char kUnknown[] = "unkown";

// Opened at load time, lives for the process.
const std::shared_ptr<tern::ICacheService> STORAGE = tern::ICacheService::of("InterceptManager");

void logWhat(int level, const char* event, const std::string& what) {
  tide::Log::build(level, kLogTag).event(event).key("what").value(what).done();
}

}  // namespace

// Never destroyed: the engine's and the carriers' threads may still read it
// while the process exits.
InterceptManager& InterceptManager::getInstance() {
  static InterceptManager* instance = new InterceptManager();
  return *instance;
}

void InterceptManager::init() {
  if (!updateTesseraConfigFromRemote()) {
    updateTesseraConfigFromLocalAsync();
  }
  registerTesseraListener();
}

void InterceptManager::update(const std::function<void(InterceptPolicy&)>& change) {
  std::lock_guard<std::mutex> lock(updateMutex_);
  auto next = std::make_shared<InterceptPolicy>(*policy());
  change(*next);
  std::atomic_store(&policy_, std::shared_ptr<const InterceptPolicy>(std::move(next)));
}

void InterceptManager::setApiInfoAllowList(std::set<std::string> names) {
  update([&names](InterceptPolicy& p) { p.apiInfoAllowList = std::move(names); });
}

void InterceptManager::setWhiteUrlList(std::list<std::string> urls) {
  update([&urls](InterceptPolicy& p) { p.whiteUrlList = std::move(urls); });
}

void InterceptManager::setWhiteMethods(std::list<std::string> methods) {
  update([&methods](InterceptPolicy& p) { p.whiteMethods = std::move(methods); });
}

bool InterceptPolicy::isInWhiteList(const std::string& url) const {
  for (const auto& entry : whiteUrlList) {
    if (tern::string_utils::contains(url, entry))
      return true;
  }
  return false;
}

bool InterceptPolicy::isInWhiteMethod(const std::string& method) const {
  for (const auto& entry : whiteMethods) {
    if (entry == method)
      return true;
  }
  return false;
}

// ---- Runtime white list ----

void InterceptManager::checkAndUpdateRuntimeList() {
  std::lock_guard<std::mutex> lock(mutex_);
  loadRuntimeListLocked();
}

void InterceptManager::loadRuntimeListLocked() {
  if (runtimeListLoaded_)
    return;
  // Set even when reading fails: a broken value is not re-read, and the next
  // addition overwrites it.
  runtimeListLoaded_ = true;
  std::optional<std::string> stored = STORAGE->get(kStoreRuntimeUrls);
  if (!stored || stored->empty())
    return;
  try {
    nlohmann::json urls = parseJson(*stored);
    for (const auto& url : urls) {
      runtimeUrlList_.push_back(url.get<std::string>());
    }
  } catch (const std::exception& e) {
    logWhat(tide::kInfo, "readRuntimeUrlsFail", e.what());
  } catch (...) {
    // The event name of the write side is kept for this case on purpose.
    logWhat(tide::kInfo, "writeRuntimeUrlsFail", kUnknown);
  }
}

void InterceptManager::updateRuntimeList() {
  std::lock_guard<std::mutex> lock(mutex_);
  runtimeListLoaded_ = false;
  loadRuntimeListLocked();
}

void InterceptManager::addUrlToRuntimeList(const std::string& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  loadRuntimeListLocked();
  for (const auto& entry : runtimeUrlList_) {
    if (tern::string_utils::contains(url, entry))
      return;
  }
  runtimeUrlList_.push_back(url);
  saveRuntimeListLocked();
}

bool InterceptManager::isInRuntimeList(const std::string& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  loadRuntimeListLocked();
  for (const auto& entry : runtimeUrlList_) {
    if (tern::string_utils::contains(url, entry))
      return true;
  }
  return false;
}

void InterceptManager::saveRuntimeWhiteList() {
  std::lock_guard<std::mutex> lock(mutex_);
  saveRuntimeListLocked();
}

void InterceptManager::saveRuntimeListLocked() {
  try {
    nlohmann::json urls = nlohmann::json::array();
    for (const auto& entry : runtimeUrlList_)
      urls.push_back(entry);
    if (!STORAGE->put(kStoreRuntimeUrls, urls.dump(-1))) {
      logWhat(tide::kInfo, "saveRuntimeWhiteList", "store refused the write");
    }
  } catch (const std::exception& e) {
    logWhat(tide::kInfo, "saveRuntimeWhiteList", e.what());
  } catch (...) {
    logWhat(tide::kInfo, "saveRuntimeWhiteList", kUnknown);
  }
}

// ---- Remote configuration ----

void InterceptManager::updateTesseraConfig(
    const std::string& from,
    const std::function<std::string(const std::string&)>& getValue) {
  if (!getValue)
    return;
  // Everything is read first and published at once.
  std::string texts[] = {getValue(kKeyEnable), getValue(kKeyOnlyMainHtml),
                         getValue(kKeyInterceptMimeType)};
  std::string enableText = texts[0];
  std::optional<std::list<std::string>> whiteList, methods;
  std::string whiteListText = getValue(kKeyWhiteList);
  if (!whiteListText.empty())
    whiteList = updateListConfig("updateWhiteListConfig", whiteListText, enableText, from);
  std::string methodText = getValue(kKeyMethodList);
  if (!methodText.empty())
    methods = updateListConfig("updateMethodConfig", methodText, enableText, from);
  // Unlike the lists above, a configuration without it empties it: a name
  // dropped from the remote list must stop being callable.
  std::optional<std::list<std::string>> allowed;
  std::string allowedText = getValue(kKeyApiInfoAllowList);
  if (!allowedText.empty())
    allowed = updateListConfig("updateApiInfoAllowList", allowedText, enableText, from);
  update([&](InterceptPolicy& p) {
    bool* switches[] = {&p.interceptEnable, &p.onlyMainHtml, &p.interceptMimeType};
    for (int i = 0; i < 3; ++i) {
      if (!texts[i].empty())
        *switches[i] = texts[i] == "true";
    }
    if (whiteList)
      p.whiteUrlList = std::move(*whiteList);
    if (methods)
      p.whiteMethods = std::move(*methods);
    p.apiInfoAllowList.clear();
    if (allowed)
      p.apiInfoAllowList.insert(allowed->begin(), allowed->end());
  });
}

std::optional<std::list<std::string>> InterceptManager::updateListConfig(
    const char* event,
    const std::string& text,
    const std::string& enableText,
    const std::string& from) {
  auto entry = tide::Log::build(tide::kInfo, kLogTag);
  entry.event(event).key("config").value(text);
  if (!enableText.empty())
    entry.key("enable").value(enableText);
  entry.key("from").value(from).done();
  try {
    nlohmann::json parsed = parseJson(text);
    if (!parsed.is_array())
      return std::nullopt;  // only an array replaces the list
    std::list<std::string> entries;
    for (const auto& element : parsed) {
      if (element.is_string())
        entries.push_back(element.get<std::string>());
    }
    return entries;
  } catch (const std::exception& e) {
    tide::Log::build(tide::kWarn, kLogTag)
        .event(event)
        .key("what")
        .value(e.what())
        .key("from")
        .value(from)
        .done();
  }
  return std::nullopt;
}

bool InterceptManager::updateTesseraConfigFromRemote() {
  std::map<std::string, std::string> config = tessera::getITesseraConfig()->getConfigs(kNamespace);
  if (config.empty())
    return false;
  // Missing keys are inserted empty, so the saved copy names all of them.
  updateTesseraConfig("remote", [&config](const std::string& key) { return config[key]; });
  saveTesseraConfig(config);
  return true;
}

void InterceptManager::updateTesseraConfigFromLocal() {
  try {
    std::optional<std::string> stored = STORAGE->get(kStoreTesseraConfig);
    if (!stored || stored->empty())
      return;
    // A copy that is not an object has no members: every key reads as empty.
    nlohmann::json saved = parseJson(*stored);
    updateTesseraConfig("local", [&saved](const std::string& key) {
      auto it = saved.find(key);
      return (it != saved.end() && it->is_string()) ? it->get<std::string>() : std::string();
    });
  } catch (const std::exception& e) {
    logWhat(tide::kInfo, "updateTesseraConfigFromLocal", e.what());
  } catch (...) {
    logWhat(tide::kInfo, "updateTesseraConfigFromLocal", kUnknown);
  }
}

void InterceptManager::updateTesseraConfigFromLocalAsync() {
  tern::ExecutorService::of("Velora", TERN_HERE).post(tern::Fiber([] {
    InterceptManager::getInstance().updateTesseraConfigFromLocal();
  }));
}

void InterceptManager::saveTesseraConfig(const std::map<std::string, std::string>& config) {
  try {
    nlohmann::json saved = nlohmann::json::object();
    for (const auto& [key, value] : config)
      saved[key] = value;
    if (!STORAGE->put(kStoreTesseraConfig, saved.dump(-1))) {
      logWhat(tide::kInfo, "saveTesseraConfig", "store refused the write");
    }
  } catch (const std::exception& e) {
    logWhat(tide::kInfo, "saveTesseraConfig", e.what());
  } catch (...) {
    logWhat(tide::kInfo, "saveTesseraConfig", kUnknown);
  }
}

void InterceptManager::registerTesseraListener() {
  tessera::getITesseraConfig()->registerListener(kNamespace,
                                                 std::make_shared<InterceptTesseraListener>());
}

}  // namespace velora
