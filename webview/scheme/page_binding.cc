#include "scheme/page_binding.h"

#include "hilog/log.h"
#include "log_tags.h"
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
  WebInfoManager::setWebInfo(tag, webInfo);
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
    if (webInfo->schemeHandler) {
      // Attached again: the new handler replaces the old one for both schemes.
      WebInfoManager::retire(
          webInfo->schemeHandler,
          static_cast<WebInfoHolder*>(OH_ArkWebSchemeHandler_GetUserData(webInfo->schemeHandler)));
    }
    ArkWeb_SchemeHandler* handler = nullptr;
    OH_ArkWeb_CreateSchemeHandler(&handler);
    webInfo->schemeHandler = handler;
    // Emptied by the destroy notice, never freed (see WebInfoHolder).
    OH_ArkWebSchemeHandler_SetUserData(handler, new WebInfoHolder{webInfo});
    OH_ArkWebSchemeHandler_SetOnRequestStart(handler, OnURLRequestStart);
    OH_ArkWebSchemeHandler_SetOnRequestStop(handler, OnURLRequestStop);
    OH_ArkWeb_SetSchemeHandler("https", webTag.c_str(), handler);
    OH_ArkWeb_SetSchemeHandler("http", webTag.c_str(), handler);
  }
  tide::Log::build(tide::kInfo, kPageTag).event("nativeAttach", webTag).done();
}

}  // namespace velora
