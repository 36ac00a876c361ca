// Node-API as the device's ace_napi offers it. The host build sits on Node's
// own headers; the device additions the module uses are declared here and
// provided by the host platform.
#ifndef FOUNDATION_ACE_NAPI_INTERFACES_KITS_NAPI_NATIVE_API_H
#define FOUNDATION_ACE_NAPI_INTERFACES_KITS_NAPI_NATIVE_API_H

#ifndef NAPI_VERSION
#define NAPI_VERSION 8
#endif

#include <node_api.h>

#ifdef __cplusplus
extern "C" {
#endif

// Loads a platform module ("@ohos.web.webview", ...) and returns its namespace
// object. Only on the script thread, not inside module init.
NAPI_EXTERN napi_status napi_load_module(napi_env env, const char* path, napi_value* result);

#ifdef __cplusplus
}
#endif

#endif  // FOUNDATION_ACE_NAPI_INTERFACES_KITS_NAPI_NATIVE_API_H
