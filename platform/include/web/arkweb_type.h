// Types of the ArkWeb native component API.
#ifndef ARKWEB_TYPE_H
#define ARKWEB_TYPE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*ArkWeb_OnComponentCallback)(const char* webTag, void* userData);

typedef struct {
  size_t size;
} ArkWeb_AnyNativeAPI;

typedef enum {
  ARKWEB_NATIVE_COMPONENT = 0,
  ARKWEB_NATIVE_CONTROLLER = 1,
  ARKWEB_NATIVE_WEB_MESSAGE_PORT = 2,
  ARKWEB_NATIVE_WEB_MESSAGE = 3,
  ARKWEB_NATIVE_COOKIE_MANAGER = 4,
  ARKWEB_NATIVE_JAVASCRIPT_VALUE = 5,
} ArkWeb_NativeAPIVariantKind;

// Each member registers a callback for one event of the component webTag.
// Register on the UI thread.
typedef struct {
  size_t size;
  void (*onControllerAttached)(const char* webTag,
                               ArkWeb_OnComponentCallback callback,
                               void* userData);
  void (*onPageBegin)(const char* webTag, ArkWeb_OnComponentCallback callback, void* userData);
  void (*onPageEnd)(const char* webTag, ArkWeb_OnComponentCallback callback, void* userData);
  void (*onDestroy)(const char* webTag, ArkWeb_OnComponentCallback callback, void* userData);
} ArkWeb_ComponentAPI;

#ifdef __cplusplus
}
#endif

#endif  // ARKWEB_TYPE_H
