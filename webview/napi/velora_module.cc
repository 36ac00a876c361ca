// The script-facing surface of the module "velora": registration and the
// functions the script layer calls.
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/ssr_client_info.h"
#include "hilog/log.h"
#include "intercept/intercept_manager.h"
#include "napi/init_helper.h"
#include "napi/napi_helper.h"
#include "napi/native_api.h"
#include "scheme/scheme_handler.h"
#include "scheme/web_info_manager.h"
#include "tern/singleton.h"
#include "tide_logger/log.h"
#include "user_agent/user_agent_helper.h"
#include "web/arkweb_interface.h"

namespace velora {
namespace {

constexpr char kWebTag[] = "Velora/web";
constexpr char kPageTag[] = "Velora/Page";

// Fetched once, on the script thread.
ArkWeb_ComponentAPI* g_componentApi = nullptr;

napi_value SdkInit(napi_env env, napi_callback_info info) {
  InitHelper::parseSDKInitParams(env, info);
  InterceptManager::getInstance().init();
  return nullptr;
}

napi_value SetClientInfo(napi_env env, napi_callback_info info) {
  InitHelper::parseSetClientInfoParams(env, info);
  auto client = SSRClientInfo::getClientInfo();
  tide::Log::build(tide::kInfo, kWebTag)
      .event("setClientInfo")
      .key("displayWith")
      .value(client->width())
      .key("displayHeight")
      .value(client->height())
      .key("safeAreaHeight")
      .value(client->safeAreaHeight())
      .key("deviceRatio")
      .value(client->deviceRatio())
      .key("landscape")
      .value(client->landscape())
      .done();
  return nullptr;
}

napi_value SetSafeAreaHeight(napi_env env, napi_callback_info info) {
  napi_value height = NapiHelper::getArgument(env, info, 0);
  if (!height)
    return nullptr;
  // ToInt32: truncates toward zero, never undefined behaviour on NaN or huge values.
  SSRClientInfo::setSafeAreaHeight(NapiHelper::getInt32(env, height));
  return nullptr;
}

napi_value SetFccEnable(napi_env env, napi_callback_info info) {
  napi_value enable = NapiHelper::getArgument(env, info, 0);
  if (!enable)
    return nullptr;
  tern::Singleton<FirstChunkManager>::getInstance().setEnable(NapiHelper::getBool(env, enable));
  return nullptr;
}

napi_value SetNetworkIntercept(napi_env env, napi_callback_info info) {
  napi_value enable = NapiHelper::getArgument(env, info, 0);
  if (!enable)
    return nullptr;
  InterceptManager::getInstance().setInterceptEnable(NapiHelper::getBool(env, enable));
  return nullptr;
}

napi_value SetNetworkInterceptOnlyMain(napi_env env, napi_callback_info info) {
  napi_value only = NapiHelper::getArgument(env, info, 0);
  if (!only)
    return nullptr;
  InterceptManager::getInstance().setOnlyMainHtml(NapiHelper::getBool(env, only));
  return nullptr;
}

napi_value SetUserAgent(napi_env env, napi_callback_info info) {
  napi_value text = NapiHelper::getArgument(env, info, 0);
  if (!text)
    return nullptr;
  std::string userAgent = NapiHelper::getString(env, text);
  if (!userAgent.empty())
    UserAgentHelper::getInstance().setUserAgent(std::move(userAgent));
  return nullptr;
}

napi_value WebviewNativeInit(napi_env env, napi_callback_info info) {
  std::shared_ptr<WebInfo> webInfo = InitHelper::parseInitParams(env, info);
  const std::string tag = webInfo->webTag;
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
    return nullptr;
  }
  // Engines older than the destroy notice have a shorter record.
  if (g_componentApi->size >= 40 && g_componentApi->onDestroy) {
    g_componentApi->onDestroy(tag.c_str(), OnArkWebDestroyCallback, nullptr);
  } else {
    tide::Log::build(tide::kInfo, kPageTag)
        .event("componentApiNotFound", tag)
        .key("method")
        .value("destroy")
        .done();
  }
  return nullptr;
}

napi_value WebviewNativeAttach(napi_env env, napi_callback_info info) {
  std::string tag = InitHelper::parseAttachedParams(env, info);
  std::shared_ptr<WebInfo> webInfo = WebInfoManager::getWebInfo(tag);
  if (webInfo) {
    OH_LOG_Print(LOG_APP, LOG_INFO, 0, kWebTag, "set scheme handler for %{public}s", tag.c_str());
    tide::Log::build(tide::kInfo, kWebTag).event("setSchemeHandler", tag).done();
    ArkWeb_SchemeHandler* handler = nullptr;
    OH_ArkWeb_CreateSchemeHandler(&handler);
    webInfo->schemeHandler = handler;
    // Emptied by the destroy notice, never freed (see WebInfoHolder).
    OH_ArkWebSchemeHandler_SetUserData(handler, new WebInfoHolder{webInfo});
    OH_ArkWebSchemeHandler_SetOnRequestStart(handler, OnURLRequestStart);
    OH_ArkWebSchemeHandler_SetOnRequestStop(handler, OnURLRequestStop);
    OH_ArkWeb_SetSchemeHandler("https", tag.c_str(), handler);
    OH_ArkWeb_SetSchemeHandler("http", tag.c_str(), handler);
  }
  tide::Log::build(tide::kInfo, kPageTag).event("nativeAttach", tag).done();
  return nullptr;
}

constexpr napi_property_descriptor kProperties[] = {
    {"sdkInit", nullptr, SdkInit, nullptr, nullptr, nullptr, napi_default, nullptr},
    {"setClientInfo", nullptr, SetClientInfo, nullptr, nullptr, nullptr, napi_default, nullptr},
    {"setSafeAreaHeight", nullptr, SetSafeAreaHeight, nullptr, nullptr, nullptr, napi_default,
     nullptr},
    {"setFccEnable", nullptr, SetFccEnable, nullptr, nullptr, nullptr, napi_default, nullptr},
    {"setNetworkIntercept", nullptr, SetNetworkIntercept, nullptr, nullptr, nullptr, napi_default,
     nullptr},
    {"setNetworkInterceptOnlyMain", nullptr, SetNetworkInterceptOnlyMain, nullptr, nullptr, nullptr,
     napi_default, nullptr},
    {"setUserAgent", nullptr, SetUserAgent, nullptr, nullptr, nullptr, napi_default, nullptr},
    {"webviewNativeInit", nullptr, WebviewNativeInit, nullptr, nullptr, nullptr, napi_default,
     nullptr},
    {"webviewNativeAttach", nullptr, WebviewNativeAttach, nullptr, nullptr, nullptr, napi_default,
     nullptr},
};

napi_value Init(napi_env env, napi_value exports) {
  napi_define_properties(env, exports, sizeof(kProperties) / sizeof(kProperties[0]), kProperties);
  return exports;
}

napi_module veloraModule = {
    1,         // nm_version
    0,         // nm_flags
    nullptr,   // nm_filename
    Init,      // nm_register_func
    "velora",  // nm_modname
    nullptr,   // nm_priv
    {nullptr, nullptr, nullptr, nullptr},
};

}  // namespace
}  // namespace velora

extern "C" __attribute__((constructor)) void RegisterEntryModule() {
  napi_module_register(&velora::veloraModule);
}
