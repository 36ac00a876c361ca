// One bound web component.
#ifndef VELORA_WEBVIEW_SCHEME_WEB_INFO_H
#define VELORA_WEBVIEW_SCHEME_WEB_INFO_H

#include <string>

#include "napi/native_api.h"
#include "web/arkweb_scheme_handler.h"

namespace velora {

// Always held by std::shared_ptr: by the registry, by the scheme handler's
// holder, and by each WebRequest of the page.
struct WebInfo {
  std::string prefetchId;   // a prefetch this page may take over; may be empty
  std::string prefetchUrl;  // the URL of that prefetch
  std::string webTag;       // the component's tag, the registry key
  // Set by webviewNativeAttach, reset by the destroy notice. Script thread.
  ArkWeb_SchemeHandler* schemeHandler = nullptr;
  void* reserved = nullptr;
  napi_env env = nullptr;  // of the webviewNativeInit call
};

// The scheme handler's user data. Read and emptied only with atomic
// shared-pointer operations; never freed, because a start callback may be
// reading it while the component goes away.
struct WebInfoHolder {
  std::shared_ptr<WebInfo> webInfo;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_SCHEME_WEB_INFO_H
