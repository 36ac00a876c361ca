// Argument parsing of the script functions.
#ifndef VELORA_WEBVIEW_NAPI_INIT_HELPER_H
#define VELORA_WEBVIEW_NAPI_INIT_HELPER_H

#include <memory>
#include <string>

#include "napi/native_api.h"
#include "scheme/web_info.h"

namespace velora {

class InitHelper {
 public:
  // sdkInit({appTag, appVersion, isDebug}) into SdkInitInfo. Without an
  // argument nothing is stored.
  static void parseSDKInitParams(napi_env env, napi_callback_info info);
  // setClientInfo({displayWith, displayHeight, safeAreaHeight, deviceRatio,
  // landscape}) into SSRClientInfo. Without an argument nothing is stored.
  static void parseSetClientInfoParams(napi_env env, napi_callback_info info);
  // webviewNativeInit({webTag, prefetchId, prefetchUrl}): a new WebInfo
  // without a scheme handler. The caller must pass the object.
  static std::shared_ptr<WebInfo> parseInitParams(napi_env env, napi_callback_info info);
  // webviewNativeAttach({webTag}): the tag.
  static std::string parseAttachedParams(napi_env env, napi_callback_info info);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NAPI_INIT_HELPER_H
