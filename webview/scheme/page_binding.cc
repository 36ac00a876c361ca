#include "scheme/page_binding.h"

#include <memory>

#include "hilog/log.h"
#include "log_tags.h"
#include "prefetch/prefetch_network.h"
#include "scheme/scheme_handler.h"
#include "scheme/web_info_manager.h"
#include "tide_logger/log.h"
#include "web/arkweb_interface.h"

namespace velora {
namespace {

constexpr const char* kWebTag = log_tags::kWeb;
constexpr const char* kPageTag = log_tags::kPage;

// Fetched once, on the script thread.
ArkWeb_ComponentAPI* g_componentApi = nullptr;

// Installs `handler` for `scheme` of the component `webTag`; false, with an
// error entry, when the engine refuses.
bool install(const char* scheme, const std::string& webTag, ArkWeb_SchemeHandler* handler) {
  if (OH_ArkWeb_SetSchemeHandler(scheme, webTag.c_str(), handler))
    return true;
  static constexpr char kWhy[] =
      "the web engine refused the handler, so the page's requests of this scheme are not "
      "intercepted; attach after the engine is initialized and the component is created";
  OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kWebTag,
               "set %{public}s scheme handler for %{public}s: %{public}s", scheme, webTag.c_str(),
               kWhy);
  tide::Log::build(tide::kError, kWebTag)
      .event("setSchemeHandlerFailed", webTag)
      .key("scheme")
      .value(scheme)
      .error(kWhy)
      .done();
  return false;
}

// A component registered again while it shows a page (an app handing it a
// prefetch for the page it will open next): the installed handler now
// serves `next`, and the prefetch only `previous` could have claimed is
// dropped, as the destroy notice would have dropped it. A page still
// loading from that prefetch keeps it to the end.
void rebind(const std::shared_ptr<WebInfo>& previous, const std::shared_ptr<WebInfo>& next) {
  if (ArkWeb_SchemeHandler* handler = previous->schemeHandler) {
    if (auto* holder = static_cast<WebInfoHolder*>(OH_ArkWebSchemeHandler_GetUserData(handler)))
      std::atomic_store(&holder->webInfo, next);
    next->schemeHandler = handler;
    previous->schemeHandler = nullptr;
  }
  bool dropped = false;
  if (!previous->prefetchId.empty() && previous->prefetchId != next->prefetchId)
    dropped = PrefetchNetwork::removePrefetch(previous->prefetchId);
  tide::Log::build(tide::kInfo, kPageTag)
      .event("rebind", next->webTag)
      .key("attached")
      .value(next->schemeHandler != nullptr)
      .key("droppedPrefetchId")
      .value(dropped ? previous->prefetchId : std::string())
      .done();
}

}  // namespace

void PageBinding::init(const std::shared_ptr<WebInfo>& webInfo) {
  const std::string& tag = webInfo->webTag;
  tide::Log::build(tide::kInfo, kPageTag)
      .event("nativeInit", tag)
      .key("prefetchId")
      .value(webInfo->prefetchId)
      .key("prefetchUrl")
      .value(webInfo->prefetchUrl)
      .done();
  std::shared_ptr<WebInfo> previous = WebInfoManager::getWebInfo(tag);
  WebInfoManager::setWebInfo(tag, webInfo);
  if (previous) {  // its destroy notice is already asked for
    rebind(previous, webInfo);
    return;
  }
  if (!g_componentApi) {
    g_componentApi =
        reinterpret_cast<ArkWeb_ComponentAPI*>(OH_ArkWeb_GetNativeAPI(ARKWEB_NATIVE_COMPONENT));
  }
  if (!g_componentApi) {
    tide::Log::build(tide::kInfo, kPageTag).event("componentApiNotFound", tag).done();
    return;
  }
  // The record's size field says how many of its members this engine has;
  // the member's offset comes from this build's own layout (its pointers
  // are 4 bytes on a 32-bit device).
  if (!ARKWEB_MEMBER_MISSING(g_componentApi, onDestroy)) {
    g_componentApi->onDestroy(tag.c_str(), OnArkWebDestroyCallback, nullptr);
  } else {
    tide::Log::build(tide::kInfo, kPageTag)
        .event("componentApiNotFound", tag)
        .key("method")
        .value("destroy")
        .done();
  }
}

void PageBinding::attach(const std::string& webTag) {
  std::shared_ptr<WebInfo> webInfo = WebInfoManager::getWebInfo(webTag);
  if (webInfo) {
    OH_LOG_Print(LOG_APP, LOG_INFO, 0, kWebTag, "set scheme handler for %{public}s",
                 webTag.c_str());
    tide::Log::build(tide::kInfo, kWebTag).event("setSchemeHandler", webTag).done();
    ArkWeb_SchemeHandler* handler = nullptr;
    OH_ArkWeb_CreateSchemeHandler(&handler);
    auto* holder = new WebInfoHolder{webInfo};
    OH_ArkWebSchemeHandler_SetUserData(handler, holder);
    OH_ArkWebSchemeHandler_SetOnRequestStart(handler, OnURLRequestStart);
    OH_ArkWebSchemeHandler_SetOnRequestStop(handler, OnURLRequestStop);
    bool https = install("https", webTag, handler);
    bool http = install("http", webTag, handler);
    if (!https && !http) {
      // Installed nowhere, so no start callback can ever read it; the
      // binding stays as it was, and a later attach may still succeed.
      OH_ArkWeb_DestroySchemeHandler(handler);
      delete holder;
    } else {
      if (webInfo->schemeHandler) {
        // Attached again: the new handler replaces the old one.
        WebInfoManager::retire(webInfo->schemeHandler,
                               static_cast<WebInfoHolder*>(
                                   OH_ArkWebSchemeHandler_GetUserData(webInfo->schemeHandler)));
      }
      // Emptied by the destroy notice, never freed (see WebInfoHolder).
      webInfo->schemeHandler = handler;
    }
  }
  tide::Log::build(tide::kInfo, kPageTag).event("nativeAttach", webTag).done();
}

}  // namespace velora
