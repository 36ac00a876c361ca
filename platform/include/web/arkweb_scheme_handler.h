// ArkWeb scheme handler: lets an application answer a web component's resource
// requests itself. Declarations as on the device.
//
// Ownership: strings returned through char** are allocated by the engine and
// released by the caller with OH_ArkWeb_ReleaseString. The application creates
// and destroys scheme handlers and responses; the engine creates requests,
// resource handlers, header lists and body streams, and the application
// destroys them (requests and resource handlers from OnRequestStop or later).
#ifndef ARKWEB_SCHEME_HANDLER_H
#define ARKWEB_SCHEME_HANDLER_H

#include <stdbool.h>
#include <stdint.h>

#include "web/arkweb_error_code.h"
#include "web/arkweb_net_error_list.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum ArkWeb_CustomSchemeOption {
  OH_ARKWEB_SCHEME_OPTION_NONE = 0,
  ARKWEB_SCHEME_OPTION_STANDARD = 1 << 0,
  ARKWEB_SCHEME_OPTION_LOCAL = 1 << 1,
  ARKWEB_SCHEME_OPTION_DISPLAY_ISOLATED = 1 << 2,
  ARKWEB_SCHEME_OPTION_SECURE = 1 << 3,
  ARKWEB_SCHEME_OPTION_CORS_ENABLED = 1 << 4,
  ARKWEB_SCHEME_OPTION_CSP_BYPASSING = 1 << 5,
  ARKWEB_SCHEME_OPTION_FETCH_ENABLED = 1 << 6,
  ARKWEB_SCHEME_OPTION_CODE_CACHE_ENABLED = 1 << 7,
} ArkWeb_CustomSchemeOption;

typedef enum ArkWeb_ResourceType {
  MAIN_FRAME = 0,
  SUB_FRAME = 1,
  STYLE_SHEET = 2,
  SCRIPT = 3,
  IMAGE = 4,
  FONT_RESOURCE = 5,
  SUB_RESOURCE = 6,
  OBJECT = 7,
  MEDIA = 8,
  WORKER = 9,
  SHARED_WORKER = 10,
  PREFETCH = 11,
  FAVICON = 12,
  XHR = 13,
  PING = 14,
  SERVICE_WORKER = 15,
  CSP_REPORT = 16,
  PLUGIN_RESOURCE = 17,
  NAVIGATION_PRELOAD_MAIN_FRAME = 19,
  NAVIGATION_PRELOAD_SUB_FRAME = 20,
} ArkWeb_ResourceType;

typedef struct ArkWeb_SchemeHandler_ ArkWeb_SchemeHandler;
typedef struct ArkWeb_ResourceHandler_ ArkWeb_ResourceHandler;
typedef struct ArkWeb_ResourceRequest_ ArkWeb_ResourceRequest;
typedef struct ArkWeb_Response_ ArkWeb_Response;
typedef struct ArkWeb_RequestHeaderList_ ArkWeb_RequestHeaderList;
typedef struct ArkWeb_HttpBodyStream_ ArkWeb_HttpBodyStream;

// A request begins. Engine IO thread. Set *intercept to true to answer the
// request through resourceHandler; false leaves it to the engine.
typedef void (*ArkWeb_OnRequestStart)(const ArkWeb_SchemeHandler* schemeHandler,
                                      ArkWeb_ResourceRequest* resourceRequest,
                                      const ArkWeb_ResourceHandler* resourceHandler,
                                      bool* intercept);

// The request finished, failed or was cancelled. Engine IO thread. After this
// call the resource handler must not be used.
typedef void (*ArkWeb_OnRequestStop)(const ArkWeb_SchemeHandler* schemeHandler,
                                     const ArkWeb_ResourceRequest* resourceRequest);

// A read finished; bytesRead bytes are now in buffer.
typedef void (*ArkWeb_HttpBodyStreamReadCallback)(const ArkWeb_HttpBodyStream* httpBodyStream,
                                                  uint8_t* buffer,
                                                  int bytesRead);

// Init finished with ARKWEB_NET_OK or a network error.
typedef void (*ArkWeb_HttpBodyStreamInitCallback)(const ArkWeb_HttpBodyStream* httpBodyStream,
                                                  ArkWeb_NetError result);

// Header list
void OH_ArkWebRequestHeaderList_Destroy(ArkWeb_RequestHeaderList* requestHeaderList);
int32_t OH_ArkWebRequestHeaderList_GetSize(const ArkWeb_RequestHeaderList* requestHeaderList);
void OH_ArkWebRequestHeaderList_GetHeader(const ArkWeb_RequestHeaderList* requestHeaderList,
                                          int32_t index,
                                          char** key,
                                          char** value);

// Upload body stream
int32_t OH_ArkWebHttpBodyStream_SetUserData(ArkWeb_HttpBodyStream* httpBodyStream, void* userData);
void* OH_ArkWebHttpBodyStream_GetUserData(const ArkWeb_HttpBodyStream* httpBodyStream);
int32_t OH_ArkWebHttpBodyStream_SetReadCallback(ArkWeb_HttpBodyStream* httpBodyStream,
                                                ArkWeb_HttpBodyStreamReadCallback readCallback);
int32_t OH_ArkWebHttpBodyStream_Init(ArkWeb_HttpBodyStream* httpBodyStream,
                                     ArkWeb_HttpBodyStreamInitCallback initCallback);
void OH_ArkWebHttpBodyStream_Read(const ArkWeb_HttpBodyStream* httpBodyStream,
                                  uint8_t* buffer,
                                  int bufLen);
uint64_t OH_ArkWebHttpBodyStream_GetSize(const ArkWeb_HttpBodyStream* httpBodyStream);
uint64_t OH_ArkWebHttpBodyStream_GetPosition(const ArkWeb_HttpBodyStream* httpBodyStream);
bool OH_ArkWebHttpBodyStream_IsChunked(const ArkWeb_HttpBodyStream* httpBodyStream);
bool OH_ArkWebHttpBodyStream_IsEof(const ArkWeb_HttpBodyStream* httpBodyStream);
bool OH_ArkWebHttpBodyStream_IsInMemory(const ArkWeb_HttpBodyStream* httpBodyStream);

// Resource request
int32_t OH_ArkWebResourceRequest_Destroy(const ArkWeb_ResourceRequest* resourceRequest);
void OH_ArkWebResourceRequest_GetReferrer(const ArkWeb_ResourceRequest* resourceRequest,
                                          char** referrer);
void OH_ArkWebResourceRequest_GetHttpBodyStream(const ArkWeb_ResourceRequest* resourceRequest,
                                                ArkWeb_HttpBodyStream** httpBodyStream);
void OH_ArkWebResourceRequest_DestroyHttpBodyStream(ArkWeb_HttpBodyStream* httpBodyStream);
int32_t OH_ArkWebResourceRequest_GetResourceType(const ArkWeb_ResourceRequest* resourceRequest);
void OH_ArkWebResourceRequest_GetFrameUrl(const ArkWeb_ResourceRequest* resourceRequest,
                                          char** frameUrl);
int32_t OH_ArkWebResourceRequest_SetUserData(ArkWeb_ResourceRequest* resourceRequest,
                                             void* userData);
void* OH_ArkWebResourceRequest_GetUserData(const ArkWeb_ResourceRequest* resourceRequest);
void OH_ArkWebResourceRequest_GetMethod(const ArkWeb_ResourceRequest* resourceRequest,
                                        char** method);
void OH_ArkWebResourceRequest_GetUrl(const ArkWeb_ResourceRequest* resourceRequest, char** url);
bool OH_ArkWebResourceRequest_IsRedirect(const ArkWeb_ResourceRequest* resourceRequest);
bool OH_ArkWebResourceRequest_IsMainFrame(const ArkWeb_ResourceRequest* resourceRequest);
bool OH_ArkWebResourceRequest_HasGesture(const ArkWeb_ResourceRequest* resourceRequest);
void OH_ArkWebResourceRequest_GetRequestHeaders(const ArkWeb_ResourceRequest* resourceRequest,
                                                ArkWeb_RequestHeaderList** requestHeaderList);

// Scheme handler
int32_t OH_ArkWeb_RegisterCustomSchemes(const char* scheme, int32_t option);
bool OH_ArkWebServiceWorker_SetSchemeHandler(const char* scheme,
                                             ArkWeb_SchemeHandler* schemeHandler);
bool OH_ArkWeb_SetSchemeHandler(const char* scheme,
                                const char* webTag,
                                ArkWeb_SchemeHandler* schemeHandler);
int32_t OH_ArkWebServiceWorker_ClearSchemeHandlers();
int32_t OH_ArkWeb_ClearSchemeHandlers(const char* webTag);
void OH_ArkWeb_CreateSchemeHandler(ArkWeb_SchemeHandler** schemeHandler);
void OH_ArkWeb_DestroySchemeHandler(ArkWeb_SchemeHandler* schemeHandler);
int32_t OH_ArkWebSchemeHandler_SetUserData(ArkWeb_SchemeHandler* schemeHandler, void* userData);
void* OH_ArkWebSchemeHandler_GetUserData(const ArkWeb_SchemeHandler* schemeHandler);
int32_t OH_ArkWebSchemeHandler_SetOnRequestStart(ArkWeb_SchemeHandler* schemeHandler,
                                                 ArkWeb_OnRequestStart onRequestStart);
int32_t OH_ArkWebSchemeHandler_SetOnRequestStop(ArkWeb_SchemeHandler* schemeHandler,
                                                ArkWeb_OnRequestStop onRequestStop);

// Response
void OH_ArkWeb_CreateResponse(ArkWeb_Response** response);
void OH_ArkWeb_DestroyResponse(ArkWeb_Response* response);
int32_t OH_ArkWebResponse_SetUrl(ArkWeb_Response* response, const char* url);
void OH_ArkWebResponse_GetUrl(const ArkWeb_Response* response, char** url);
int32_t OH_ArkWebResponse_SetError(ArkWeb_Response* response, ArkWeb_NetError errorCode);
ArkWeb_NetError OH_ArkWebResponse_GetError(const ArkWeb_Response* response);
int32_t OH_ArkWebResponse_SetStatus(ArkWeb_Response* response, int status);
int OH_ArkWebResponse_GetStatus(const ArkWeb_Response* response);
int32_t OH_ArkWebResponse_SetStatusText(ArkWeb_Response* response, const char* statusText);
void OH_ArkWebResponse_GetStatusText(const ArkWeb_Response* response, char** statusText);
int32_t OH_ArkWebResponse_SetMimeType(ArkWeb_Response* response, const char* mimeType);
void OH_ArkWebResponse_GetMimeType(const ArkWeb_Response* response, char** mimeType);
int32_t OH_ArkWebResponse_SetCharset(ArkWeb_Response* response, const char* charset);
void OH_ArkWebResponse_GetCharset(const ArkWeb_Response* response, char** charset);
int32_t OH_ArkWebResponse_SetHeaderByName(ArkWeb_Response* response,
                                          const char* name,
                                          const char* value,
                                          bool overwrite);
void OH_ArkWebResponse_GetHeaderByName(const ArkWeb_Response* response,
                                       const char* name,
                                       char** value);

// Resource handler
int32_t OH_ArkWebResourceHandler_Destroy(const ArkWeb_ResourceHandler* resourceHandler);
int32_t OH_ArkWebResourceHandler_DidReceiveResponse(const ArkWeb_ResourceHandler* resourceHandler,
                                                    const ArkWeb_Response* response);
int32_t OH_ArkWebResourceHandler_DidReceiveData(const ArkWeb_ResourceHandler* resourceHandler,
                                                const uint8_t* buffer,
                                                int64_t bufLen);
int32_t OH_ArkWebResourceHandler_DidFinish(const ArkWeb_ResourceHandler* resourceHandler);
int32_t OH_ArkWebResourceHandler_DidFailWithError(const ArkWeb_ResourceHandler* resourceHandler,
                                                  ArkWeb_NetError errorCode);
int32_t OH_ArkWebResourceHandler_DidFailWithErrorV2(const ArkWeb_ResourceHandler* resourceHandler,
                                                    ArkWeb_NetError errorCode,
                                                    bool completeIfNoResponse);

// Release helpers
void OH_ArkWeb_ReleaseString(char* string);
void OH_ArkWeb_ReleaseByteArray(uint8_t* byteArray);

#ifdef __cplusplus
}
#endif

#endif  // ARKWEB_SCHEME_HANDLER_H
