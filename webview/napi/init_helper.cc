#include "napi/init_helper.h"

#include <vector>

#include "first_chunk/ssr_client_info.h"
#include "napi/napi_helper.h"
#include "napi/sdk_init_info.h"

namespace velora {

void InitHelper::parseSDKInitParams(napi_env env, napi_callback_info info) {
  napi_value params = NapiHelper::getArgument(env, info, 0);
  if (!params) {
    return;
  }
  std::string appTag = NapiHelper::getStringFromObj(env, params, "appTag");
  std::string appVersion = NapiHelper::getStringFromObj(env, params, "appVersion");
  bool debug = NapiHelper::getBoolFromObj(env, params, "isDebug");
  SdkInitInfo& sdk = SdkInitInfo::getInstance();
  sdk.setAppTag(appTag);
  sdk.setAppVersion(appVersion);
  sdk.setDebug(debug);
}

void InitHelper::parseSetClientInfoParams(napi_env env, napi_callback_info info) {
  napi_value params = NapiHelper::getArgument(env, info, 0);
  if (!params) {
    return;
  }
  // "displayWith" is the key the app side sends; keep the spelling.
  SSRClientInfo::setWidth(NapiHelper::getInt32FromObj(env, params, "displayWith"));
  SSRClientInfo::setHeight(NapiHelper::getInt32FromObj(env, params, "displayHeight"));
  SSRClientInfo::setSafeAreaHeight(NapiHelper::getInt32FromObj(env, params, "safeAreaHeight"));
  SSRClientInfo::setDeviceRatio(
      static_cast<float>(NapiHelper::getDoubleFromObj(env, params, "deviceRatio")));
  SSRClientInfo::setLandscape(NapiHelper::getBoolFromObj(env, params, "landscape"));
}

namespace {

// Argument 0 of a call that must have one; undefined when it is missing.
napi_value firstArgument(napi_env env, napi_callback_info info) {
  size_t argc = 0;
  napi_get_cb_info(env, info, &argc, nullptr, nullptr, nullptr);
  std::vector<napi_value> argv(argc > 0 ? argc : 1, nullptr);
  napi_get_cb_info(env, info, &argc, argv.data(), nullptr, nullptr);
  if (!argv[0])
    napi_get_undefined(env, &argv[0]);
  return argv[0];
}

}  // namespace

std::shared_ptr<WebInfo> InitHelper::parseInitParams(napi_env env, napi_callback_info info) {
  napi_value params = firstArgument(env, info);
  auto webInfo = std::make_shared<WebInfo>();
  webInfo->webTag = NapiHelper::getStringFromObj(env, params, "webTag");
  webInfo->prefetchId = NapiHelper::getStringFromObj(env, params, "prefetchId");
  webInfo->prefetchUrl = NapiHelper::getStringFromObj(env, params, "prefetchUrl");
  webInfo->env = env;
  return webInfo;
}

std::string InitHelper::parseAttachedParams(napi_env env, napi_callback_info info) {
  return NapiHelper::getStringFromObj(env, firstArgument(env, info), "webTag");
}

}  // namespace velora
