#include "scheme/web_info_manager.h"

#include <map>
#include <mutex>
#include <vector>

namespace velora {
namespace {

std::mutex g_mutex;
std::map<std::string, std::shared_ptr<WebInfo>> webInfoMap;  // guarded by g_mutex

struct RetiredBinding {
  ArkWeb_SchemeHandler* handler;
  WebInfoHolder* holder;
};
// Never destroyed, like what it holds.
auto* g_retired = new std::vector<RetiredBinding>();  // guarded by g_mutex

}  // namespace

std::shared_ptr<WebInfo> WebInfoManager::getWebInfo(const std::string& tag) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return webInfoMap[tag];
}

void WebInfoManager::setWebInfo(const std::string& tag, std::shared_ptr<WebInfo> info) {
  std::lock_guard<std::mutex> lock(g_mutex);
  webInfoMap[tag] = std::move(info);
}

bool WebInfoManager::removeWebInfo(const std::string& tag) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return webInfoMap.erase(tag) > 0;
}

void WebInfoManager::retire(ArkWeb_SchemeHandler* handler, WebInfoHolder* holder) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_retired->push_back({handler, holder});
}

}  // namespace velora
