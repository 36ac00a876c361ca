#include "napi/init_helper.h"

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

}  // namespace velora
