#include "scheme/scheme_handler.h"

#include <cstring>

#include "hilog/log.h"
#include "intercept/intercept_manager.h"
#include "log_tags.h"
#include "prefetch/prefetch_network.h"
#include "scheme/web_info_manager.h"
#include "tide_logger/log.h"
#include "web_request/web_request.h"

namespace velora {

const char kSecurityUrlEndpoint[] =
    "https://security-policy.api.zenoapp.example/security/v1/oh/securityurls";

namespace {

// A string the engine hands out; released on every way out of a callback.
struct EngineString {
  EngineString() = default;
  EngineString(const EngineString&) = delete;
  EngineString& operator=(const EngineString&) = delete;
  ~EngineString() { OH_ArkWeb_ReleaseString(text); }
  char* text = nullptr;
};

constexpr const char* kWebTag = log_tags::kWeb;
constexpr size_t kSecurityUrlLength = sizeof(kSecurityUrlEndpoint) - 1;
static_assert(kSecurityUrlLength == 71, "the endpoint is compared on its 71 characters");

void logIgnored(const WebInfo& info, const char* url, const char* reason) {
  tide::Log::build(tide::kInfo, kWebTag)
      .event("ignoreIntercept", info.webTag)
      .key("url")
      .value(url)
      .key("reason")
      .value(reason)
      .done();
}

void attachAndStart(std::shared_ptr<WebInfo> info,
                    ArkWeb_ResourceRequest* request,
                    const ArkWeb_ResourceHandler* resourceHandler) {
  auto* holder =
      new WebRequestHolder{std::make_shared<WebRequest>(std::move(info), request, resourceHandler)};
  OH_ArkWebResourceRequest_SetUserData(request, holder);
  holder->request->CoreStart();
}

void stop(const ArkWeb_ResourceRequest* request) {
  if (!request) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kWebTag, "on request stop request is nullptr.");
    return;
  }
  auto* holder = static_cast<WebRequestHolder*>(OH_ArkWebResourceRequest_GetUserData(request));
  if (!holder || !holder->request)
    return;
  holder->request->CoreStop();
  // Usually the last owner: the WebRequest (and with it the engine's request)
  // ends here.
  delete holder;
}

}  // namespace

void OnURLRequestStart(const ArkWeb_SchemeHandler* schemeHandler,
                       ArkWeb_ResourceRequest* resourceRequest,
                       const ArkWeb_ResourceHandler* resourceHandler,
                       bool* intercept) {
  *intercept = false;
  auto* holder = static_cast<WebInfoHolder*>(OH_ArkWebSchemeHandler_GetUserData(schemeHandler));
  if (!holder)
    return;
  std::shared_ptr<WebInfo> info = std::atomic_load(&holder->webInfo);
  if (!info)
    return;  // the component is gone
  EngineString url;
  OH_ArkWebResourceRequest_GetUrl(resourceRequest, &url.text);
  if (!url.text)
    return;
  if (std::strlen(url.text) >= kSecurityUrlLength &&
      std::strncmp(url.text, kSecurityUrlEndpoint, kSecurityUrlLength) == 0) {
    return;
  }
  // One policy for the whole decision, whatever update comes meanwhile.
  InterceptManager& manager = InterceptManager::getInstance();
  std::shared_ptr<const InterceptPolicy> policy = manager.policy();
  if (!policy->interceptEnable)
    return;
  if (policy->onlyMainHtml && !OH_ArkWebResourceRequest_IsMainFrame(resourceRequest)) {
    logIgnored(*info, url.text, "onlyMainHtml");
    return;
  }
  if (manager.isInRuntimeList(url.text)) {
    logIgnored(*info, url.text, "runtimeWhiteList");
    return;
  }
  if (policy->isInWhiteList(url.text)) {
    logIgnored(*info, url.text, "matchWhiteList");
    return;
  }
  EngineString method;
  if (policy->hasWhiteMethods()) {
    OH_ArkWebResourceRequest_GetMethod(resourceRequest, &method.text);
    if (method.text && policy->isInWhiteMethod(method.text)) {
      logIgnored(*info, url.text, "matchWhiteMethod");
      return;
    }
  }
  *intercept = true;
  attachAndStart(std::move(info), resourceRequest, resourceHandler);
}

void OnURLRequestStop(const ArkWeb_SchemeHandler*, const ArkWeb_ResourceRequest* resourceRequest) {
  stop(resourceRequest);
}

void OnURLRequestStartForSW(const ArkWeb_SchemeHandler* schemeHandler,
                            ArkWeb_ResourceRequest* resourceRequest,
                            const ArkWeb_ResourceHandler* resourceHandler,
                            bool* intercept) {
  auto* holder = static_cast<WebInfoHolder*>(OH_ArkWebSchemeHandler_GetUserData(schemeHandler));
  if (!holder)
    return;
  *intercept = true;
  attachAndStart(holder->webInfo, resourceRequest, resourceHandler);
}

void OnURLRequestStopForSW(const ArkWeb_SchemeHandler*,
                           const ArkWeb_ResourceRequest* resourceRequest) {
  stop(resourceRequest);
}

void OnArkWebDestroyCallback(const char* webTag, void* /*userData*/) {
  std::string tag = webTag ? webTag : "";
  std::shared_ptr<WebInfo> info = WebInfoManager::getWebInfo(tag);
  if (info && info->schemeHandler) {
    auto* holder =
        static_cast<WebInfoHolder*>(OH_ArkWebSchemeHandler_GetUserData(info->schemeHandler));
    OH_ArkWebSchemeHandler_SetUserData(info->schemeHandler, nullptr);
    if (holder) {
      // Emptied, not freed: a start callback may be reading it right now.
      std::atomic_exchange(&holder->webInfo, std::shared_ptr<WebInfo>());
    }
    WebInfoManager::retire(info->schemeHandler, holder);
    info->schemeHandler = nullptr;
  }
  if (info && !info->prefetchId.empty())
    PrefetchNetwork::removePrefetch(info->prefetchId);
  bool removed = WebInfoManager::removeWebInfo(tag);
  tide::Log::build(tide::kInfo, kWebTag)
      .event("nativeDestroy", tag)
      .key("removed")
      .value(removed)
      .done();
}

}  // namespace velora
