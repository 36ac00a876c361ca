// The script-facing surface of the module "velora": registration and the
// functions the script layer calls.
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/first_chunk_storage.h"
#include "first_chunk/ssr_client_info.h"
#include "hilog/log.h"
#include "intercept/intercept_manager.h"
#include "log_tags.h"
#include "napi/init_helper.h"
#include "napi/napi_helper.h"
#include "napi/native_api.h"
#include "prefetch/prefetch_helper.h"
#include "prefetch/prefetch_network.h"
#include "scheme/page_binding.h"
#include "tern/singleton.h"
#include "tide_logger/log.h"
#include "user_agent/user_agent_helper.h"

namespace velora {
namespace {

constexpr const char* kWebTag = log_tags::kWeb;

napi_value SdkInit(napi_env env, napi_callback_info info) {
  InitHelper::parseSDKInitParams(env, info);
  InterceptManager::getInstance().init();
  // First chunks of pages not visited since they expired.
  FirstChunkStorage::sweepSoon();
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

// A switch setter: argument 0 read as bool; without it nothing changes.
template <typename Apply>
napi_value setSwitch(napi_env env, napi_callback_info info, Apply apply) {
  napi_value value = NapiHelper::getArgument(env, info, 0);
  if (value)
    apply(NapiHelper::getBool(env, value));
  return nullptr;
}

napi_value SetFccEnable(napi_env env, napi_callback_info info) {
  return setSwitch(
      env, info, [](bool on) { tern::Singleton<FirstChunkManager>::getInstance().setEnable(on); });
}

napi_value SetNetworkIntercept(napi_env env, napi_callback_info info) {
  return setSwitch(env, info,
                   [](bool on) { InterceptManager::getInstance().setInterceptEnable(on); });
}

napi_value SetNetworkInterceptOnlyMain(napi_env env, napi_callback_info info) {
  return setSwitch(env, info, [](bool on) { InterceptManager::getInstance().setOnlyMainHtml(on); });
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
  PageBinding::init(InitHelper::parseInitParams(env, info));
  return nullptr;
}

napi_value WebviewNativeAttach(napi_env env, napi_callback_info info) {
  PageBinding::attach(InitHelper::parseAttachedParams(env, info));
  return nullptr;
}

napi_value Prefetch(napi_env env, napi_callback_info info) {
  auto [request, callback] = PrefetchHelper::parsePrefetchRequestParams(env, info);
  std::string id = PrefetchNetwork::startPrefetch(request, callback);
  tide::Log::build(tide::kInfo, kWebTag)
      .event("prefetch", id)
      .key("url")
      .value(request->getUrl())
      .done();
  return NapiHelper::createStringValue(env, id);
}

napi_value RemovePrefetch(napi_env env, napi_callback_info info) {
  napi_value argument = NapiHelper::getArgument(env, info, 0);
  if (!argument) {
    tide::Log::build(tide::kInfo, kWebTag).event("removePrefetch", "null").done();
    OH_LOG_Print(LOG_APP, LOG_INFO, 0, kWebTag, "removePrefetch param null");
    return nullptr;
  }
  std::string id = NapiHelper::getString(env, argument);
  OH_LOG_Print(LOG_APP, LOG_INFO, 0, kWebTag, "removePrefetch id:%{public}s", id.c_str());
  tide::Log::build(tide::kInfo, kWebTag).event("removePrefetch", id).done();
  PrefetchNetwork::removePrefetch(id);
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
    {"prefetch", nullptr, Prefetch, nullptr, nullptr, nullptr, napi_default, nullptr},
    {"removePrefetch", nullptr, RemovePrefetch, nullptr, nullptr, nullptr, napi_default, nullptr},
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
