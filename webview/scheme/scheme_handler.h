// The scheme handler's callbacks: the engine asks, for every request of a
// bound page, whether Velora answers it.
#ifndef VELORA_WEBVIEW_SCHEME_SCHEME_HANDLER_H
#define VELORA_WEBVIEW_SCHEME_SCHEME_HANDLER_H

#include <memory>

#include "web/arkweb_scheme_handler.h"

namespace velora {

class WebRequest;

// The request's user data from start to stop: the owner that keeps its
// WebRequest alive meanwhile.
struct WebRequestHolder {
  std::shared_ptr<WebRequest> request;
};

// The platform's security-URL configuration endpoint; never intercepted.
extern const char kSecurityUrlEndpoint[];

// Engine's scheme-handler thread. Declines (sets *intercept false) or
// attaches a started WebRequest to the request.
void OnURLRequestStart(const ArkWeb_SchemeHandler* schemeHandler,
                       ArkWeb_ResourceRequest* resourceRequest,
                       const ArkWeb_ResourceHandler* resourceHandler,
                       bool* intercept);
// Engine's scheme-handler thread. Marks the request stopped and releases the
// holder; the WebRequest ends unless another owner still holds it.
void OnURLRequestStop(const ArkWeb_SchemeHandler* schemeHandler,
                      const ArkWeb_ResourceRequest* resourceRequest);

// Twins for a service-worker scheme handler: no policy check. Not installed
// by this module.
void OnURLRequestStartForSW(const ArkWeb_SchemeHandler* schemeHandler,
                            ArkWeb_ResourceRequest* resourceRequest,
                            const ArkWeb_ResourceHandler* resourceHandler,
                            bool* intercept);
void OnURLRequestStopForSW(const ArkWeb_SchemeHandler* schemeHandler,
                           const ArkWeb_ResourceRequest* resourceRequest);

// The component API's destroy notice for `webTag`. Script thread.
void OnArkWebDestroyCallback(const char* webTag, void* userData);

}  // namespace velora

#endif  // VELORA_WEBVIEW_SCHEME_SCHEME_HANDLER_H
