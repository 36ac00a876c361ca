// Argument parsing of the script functions.
#ifndef VELORA_WEBVIEW_NAPI_INIT_HELPER_H
#define VELORA_WEBVIEW_NAPI_INIT_HELPER_H

#include "napi/native_api.h"

namespace velora {

class InitHelper {
 public:
  // sdkInit({appTag, appVersion, isDebug}) into SdkInitInfo. Without an
  // argument nothing is stored.
  static void parseSDKInitParams(napi_env env, napi_callback_info info);
  // setClientInfo({displayWith, displayHeight, safeAreaHeight, deviceRatio,
  // landscape}) into SSRClientInfo. Without an argument nothing is stored.
  static void parseSetClientInfoParams(napi_env env, napi_callback_info info);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NAPI_INIT_HELPER_H
