// The ArkWeb scheme-handler C API on the host engine. Misuse that the
// device tolerates (calls on ended requests, a second response) is ignored
// with a hilog line; calls that break a rule the SDK states are refused and
// counted (arkweb_host/rules.h).
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "arkweb/engine_internal.h"
#include "hilog/log.h"

namespace arkweb_host {
namespace {

// Outstanding strings, kept as hidden pointers: a string the app never
// releases stays unreachable, so LeakSanitizer reports it.
struct StringRegistry {
  std::mutex mutex;
  std::unordered_set<uintptr_t> outstanding;
};

constexpr uintptr_t kHide = static_cast<uintptr_t>(0x5a5a5a5a5a5a5a5aull);

StringRegistry& strings() {
  static StringRegistry* registry = new StringRegistry();  // used until exit
  static struct ReportAtExit {
    ~ReportAtExit() {
      std::lock_guard<std::mutex> lock(registry->mutex);
      if (!registry->outstanding.empty()) {
        OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kEngineLogTag,
                     "%{public}zu engine strings were never released (OH_ArkWeb_ReleaseString)",
                     registry->outstanding.size());
      }
    }
  } reportAtExit;
  return *registry;
}

}  // namespace

char* copyString(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  StringRegistry& registry = strings();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.outstanding.insert(reinterpret_cast<uintptr_t>(copy) ^ kHide);
  return copy;
}

}  // namespace arkweb_host

using arkweb_host::copyString;

namespace {

using arkweb_host::kEngineLogTag;

int32_t invalid(const char* function) {
  OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag, "%{public}s: invalid argument", function);
  return ARKWEB_INVALID_PARAM;
}

void out(char** target, const std::string& text) {
  if (target)
    *target = copyString(text);
}

// What makes a read break the rules, or null when it keeps them.
const char* brokenReadRule(BodyStreamState& state, const uint8_t* buffer, int bufLen) {
  if (!arkweb_host::ioThread().runsTasksOnCurrentThread())
    return "called off the engine's IO thread";
  if (bufLen <= 0)
    return "asked for no bytes: bufLen must be positive";
  if (!buffer)
    return "called without a buffer";
  std::lock_guard<std::recursive_mutex> lock(state.mutex);
  return state.initialized ? nullptr : "called before the stream initialized successfully";
}

// Runs the read callback on the IO thread unless the stream is gone by then.
void answerRead(std::shared_ptr<BodyStreamState> state,
                const ArkWeb_HttpBodyStream* stream,
                uint8_t* buffer,
                int result) {
  arkweb_host::ioThread().post([state, stream, buffer, result] {
    std::lock_guard<std::recursive_mutex> lock(state->mutex);
    if (!state->destroyed && state->readCallback)
      state->readCallback(stream, buffer, result);
  });
}

}  // namespace

extern "C" {

void OH_ArkWeb_ReleaseString(char* string) {
  if (!string)
    return;
  auto& registry = arkweb_host::strings();
  std::lock_guard<std::mutex> lock(registry.mutex);
  if (registry.outstanding.erase(reinterpret_cast<uintptr_t>(string) ^ arkweb_host::kHide) == 0) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "OH_ArkWeb_ReleaseString: not a string of the engine (released twice?)");
    return;
  }
  std::free(string);
}

void OH_ArkWeb_ReleaseByteArray(uint8_t* byteArray) {
  std::free(byteArray);
}

// ---- Scheme handler ----

void OH_ArkWeb_CreateSchemeHandler(ArkWeb_SchemeHandler** schemeHandler) {
  if (schemeHandler)
    *schemeHandler = new ArkWeb_SchemeHandler_();
}

void OH_ArkWeb_DestroySchemeHandler(ArkWeb_SchemeHandler* schemeHandler) {
  delete schemeHandler;
}

int32_t OH_ArkWebSchemeHandler_SetUserData(ArkWeb_SchemeHandler* schemeHandler, void* userData) {
  if (!schemeHandler)
    return invalid(__func__);
  schemeHandler->userData.store(userData);
  return ARKWEB_SUCCESS;
}

void* OH_ArkWebSchemeHandler_GetUserData(const ArkWeb_SchemeHandler* schemeHandler) {
  return schemeHandler ? schemeHandler->userData.load() : nullptr;
}

int32_t OH_ArkWebSchemeHandler_SetOnRequestStart(ArkWeb_SchemeHandler* schemeHandler,
                                                 ArkWeb_OnRequestStart onRequestStart) {
  if (!schemeHandler)
    return invalid(__func__);
  schemeHandler->onStart.store(onRequestStart);
  return ARKWEB_SUCCESS;
}

int32_t OH_ArkWebSchemeHandler_SetOnRequestStop(ArkWeb_SchemeHandler* schemeHandler,
                                                ArkWeb_OnRequestStop onRequestStop) {
  if (!schemeHandler)
    return invalid(__func__);
  schemeHandler->onStop.store(onRequestStop);
  return ARKWEB_SUCCESS;
}

int32_t OH_ArkWeb_RegisterCustomSchemes(const char* scheme, int32_t /*option*/) {
  if (!scheme || !*scheme)
    return ARKWEB_INVALID_PARAM;
  for (const char* reserved : {"http", "https", "file", "ftp", "about", "data"}) {
    if (strcasecmp(scheme, reserved) == 0)
      return ARKWEB_INVALID_PARAM;
  }
  return ARKWEB_SUCCESS;
}

// ---- Request ----

int32_t OH_ArkWebResourceRequest_Destroy(const ArkWeb_ResourceRequest* resourceRequest) {
  if (!resourceRequest)
    return invalid(__func__);
  delete resourceRequest;
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResourceRequest_GetUrl(const ArkWeb_ResourceRequest* request, char** url) {
  if (request)
    out(url, request->url);
  else if (url)
    *url = nullptr;
}

void OH_ArkWebResourceRequest_GetMethod(const ArkWeb_ResourceRequest* request, char** method) {
  if (request)
    out(method, request->method);
  else if (method)
    *method = nullptr;
}

void OH_ArkWebResourceRequest_GetReferrer(const ArkWeb_ResourceRequest* request, char** referrer) {
  if (!referrer)
    return;
  *referrer = (request && !request->referrer.empty()) ? copyString(request->referrer) : nullptr;
}

void OH_ArkWebResourceRequest_GetFrameUrl(const ArkWeb_ResourceRequest* request, char** frameUrl) {
  if (request)
    out(frameUrl, request->frameUrl);
  else if (frameUrl)
    *frameUrl = nullptr;
}

bool OH_ArkWebResourceRequest_IsMainFrame(const ArkWeb_ResourceRequest* request) {
  return request && request->mainFrame;
}

bool OH_ArkWebResourceRequest_HasGesture(const ArkWeb_ResourceRequest* request) {
  return request && request->mainFrame;
}

bool OH_ArkWebResourceRequest_IsRedirect(const ArkWeb_ResourceRequest* request) {
  return request && request->redirect;
}

int32_t OH_ArkWebResourceRequest_GetResourceType(const ArkWeb_ResourceRequest* request) {
  if (!request)
    return -1;
  return request->mainFrame ? MAIN_FRAME : SUB_RESOURCE;
}

int32_t OH_ArkWebResourceRequest_SetUserData(ArkWeb_ResourceRequest* request, void* userData) {
  if (!request)
    return invalid(__func__);
  request->userData.store(userData);
  return ARKWEB_SUCCESS;
}

void* OH_ArkWebResourceRequest_GetUserData(const ArkWeb_ResourceRequest* request) {
  return request ? request->userData.load() : nullptr;
}

void OH_ArkWebResourceRequest_GetRequestHeaders(const ArkWeb_ResourceRequest* request,
                                                ArkWeb_RequestHeaderList** list) {
  if (!list)
    return;
  *list = request ? new ArkWeb_RequestHeaderList_{request->headers} : nullptr;
}

void OH_ArkWebRequestHeaderList_Destroy(ArkWeb_RequestHeaderList* list) {
  delete list;
}

int32_t OH_ArkWebRequestHeaderList_GetSize(const ArkWeb_RequestHeaderList* list) {
  return list ? static_cast<int32_t>(list->headers.size()) : -1;
}

void OH_ArkWebRequestHeaderList_GetHeader(const ArkWeb_RequestHeaderList* list,
                                          int32_t index,
                                          char** key,
                                          char** value) {
  if (!list || index < 0 || static_cast<size_t>(index) >= list->headers.size()) {
    invalid(__func__);
    if (key)
      *key = nullptr;
    if (value)
      *value = nullptr;
    return;
  }
  out(key, list->headers[index].first);
  out(value, list->headers[index].second);
}

// ---- Upload body stream ----

void OH_ArkWebResourceRequest_GetHttpBodyStream(const ArkWeb_ResourceRequest* request,
                                                ArkWeb_HttpBodyStream** stream) {
  if (!stream)
    return;
  *stream = nullptr;
  if (!request || !request->body)
    return;
  auto state = std::make_shared<BodyStreamState>();
  state->source = request->body;
  *stream = new ArkWeb_HttpBodyStream_{state};
}

void OH_ArkWebResourceRequest_DestroyHttpBodyStream(ArkWeb_HttpBodyStream* stream) {
  if (!stream)
    return;
  {
    // Waits for a read callback running on another thread.
    std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
    stream->state->destroyed = true;
  }
  delete stream;
}

int32_t OH_ArkWebHttpBodyStream_SetUserData(ArkWeb_HttpBodyStream* stream, void* userData) {
  if (!stream)
    return invalid(__func__);
  std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
  stream->state->userData = userData;
  return ARKWEB_SUCCESS;
}

void* OH_ArkWebHttpBodyStream_GetUserData(const ArkWeb_HttpBodyStream* stream) {
  if (!stream)
    return nullptr;
  std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
  return stream->state->userData;
}

int32_t OH_ArkWebHttpBodyStream_SetReadCallback(ArkWeb_HttpBodyStream* stream,
                                                ArkWeb_HttpBodyStreamReadCallback readCallback) {
  if (!stream)
    return invalid(__func__);
  std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
  stream->state->readCallback = readCallback;
  return ARKWEB_SUCCESS;
}

int32_t OH_ArkWebHttpBodyStream_Init(ArkWeb_HttpBodyStream* stream,
                                     ArkWeb_HttpBodyStreamInitCallback initCallback) {
  if (!stream || !initCallback)
    return invalid(__func__);
  if (!arkweb_host::ioThread().runsTasksOnCurrentThread()) {
    arkweb_host::reportRuleViolation(
        "OH_ArkWebHttpBodyStream_Init called off the engine's IO thread");
    return ARKWEB_INVALID_PARAM;
  }
  std::shared_ptr<BodyStreamState> state = stream->state;
  // Completes later, as a stream whose bytes must first be found does.
  arkweb_host::ioThread().post([state, stream, initCallback] {
    std::lock_guard<std::recursive_mutex> lock(state->mutex);
    if (state->destroyed)
      return;
    auto result = static_cast<ArkWeb_NetError>(state->source->initError);
    state->initialized = result == ARKWEB_NET_OK;
    initCallback(stream, result);
  });
  return ARKWEB_SUCCESS;
}

void OH_ArkWebHttpBodyStream_Read(const ArkWeb_HttpBodyStream* stream,
                                  uint8_t* buffer,
                                  int bufLen) {
  if (!stream) {
    invalid(__func__);
    return;
  }
  std::shared_ptr<BodyStreamState> state = stream->state;
  if (const char* broken = brokenReadRule(*state, buffer, bufLen)) {
    arkweb_host::reportRuleViolation("OH_ArkWebHttpBodyStream_Read(bufLen " +
                                     std::to_string(bufLen) + ") " + broken);
    // Still answered, so the caller's upload ends rather than waits forever:
    // an empty ask reads nothing, anything else fails.
    answerRead(state, stream, buffer, bufLen == 0 ? 0 : ARKWEB_ERR_INVALID_ARGUMENT);
    return;
  }
  // The bytes are copied on the worker; the callback comes back on the
  // thread that asked, as on the device.
  arkweb_host::workerThread().post([state, stream, buffer, bufLen] {
    int result = 0;
    {
      std::lock_guard<std::recursive_mutex> lock(state->mutex);
      if (state->destroyed)
        return;
      const BodySource& source = *state->source;
      if (source.readError && state->position > 0) {
        result = source.readError;
      } else {
        size_t n =
            std::min<size_t>(static_cast<size_t>(bufLen), source.bytes.size() - state->position);
        std::memcpy(buffer, source.bytes.data() + state->position, n);
        state->position += n;
        result = static_cast<int>(n);
      }
    }
    answerRead(state, stream, buffer, result);
  });
}

uint64_t OH_ArkWebHttpBodyStream_GetSize(const ArkWeb_HttpBodyStream* stream) {
  if (!stream || stream->state->source->chunked)
    return 0;
  return stream->state->source->bytes.size();
}

uint64_t OH_ArkWebHttpBodyStream_GetPosition(const ArkWeb_HttpBodyStream* stream) {
  if (!stream)
    return 0;
  std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
  return stream->state->position;
}

bool OH_ArkWebHttpBodyStream_IsChunked(const ArkWeb_HttpBodyStream* stream) {
  return stream && stream->state->source->chunked;
}

bool OH_ArkWebHttpBodyStream_IsEof(const ArkWeb_HttpBodyStream* stream) {
  if (!stream)
    return false;
  std::lock_guard<std::recursive_mutex> lock(stream->state->mutex);
  return stream->state->position == stream->state->source->bytes.size();
}

bool OH_ArkWebHttpBodyStream_IsInMemory(const ArkWeb_HttpBodyStream* stream) {
  return stream && !stream->state->source->chunked;
}

// ---- Response ----

void OH_ArkWeb_CreateResponse(ArkWeb_Response** response) {
  if (response)
    *response = new ArkWeb_Response_();
}

void OH_ArkWeb_DestroyResponse(ArkWeb_Response* response) {
  delete response;
}

#define WITH_RESPONSE(response) \
  if (!response)                \
    return invalid(__func__);   \
  std::lock_guard<std::mutex> lock(response->mutex)

int32_t OH_ArkWebResponse_SetUrl(ArkWeb_Response* response, const char* url) {
  WITH_RESPONSE(response);
  response->url = url ? url : "";
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResponse_GetUrl(const ArkWeb_Response* response, char** url) {
  if (response)
    out(url, response->url);
}

int32_t OH_ArkWebResponse_SetError(ArkWeb_Response* response, ArkWeb_NetError errorCode) {
  WITH_RESPONSE(response);
  response->error = errorCode;
  return ARKWEB_SUCCESS;
}

ArkWeb_NetError OH_ArkWebResponse_GetError(const ArkWeb_Response* response) {
  return response ? response->error : ARKWEB_ERR_FAILED;
}

int32_t OH_ArkWebResponse_SetStatus(ArkWeb_Response* response, int status) {
  WITH_RESPONSE(response);
  response->status = status;
  return ARKWEB_SUCCESS;
}

int OH_ArkWebResponse_GetStatus(const ArkWeb_Response* response) {
  return response ? response->status : -1;
}

int32_t OH_ArkWebResponse_SetStatusText(ArkWeb_Response* response, const char* statusText) {
  WITH_RESPONSE(response);
  response->statusText = statusText ? statusText : "";
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResponse_GetStatusText(const ArkWeb_Response* response, char** statusText) {
  if (response)
    out(statusText, response->statusText);
}

int32_t OH_ArkWebResponse_SetMimeType(ArkWeb_Response* response, const char* mimeType) {
  WITH_RESPONSE(response);
  response->mimeType = mimeType ? mimeType : "";
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResponse_GetMimeType(const ArkWeb_Response* response, char** mimeType) {
  if (response)
    out(mimeType, response->mimeType);
}

int32_t OH_ArkWebResponse_SetCharset(ArkWeb_Response* response, const char* charset) {
  WITH_RESPONSE(response);
  response->charset = charset ? charset : "";
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResponse_GetCharset(const ArkWeb_Response* response, char** charset) {
  if (response)
    out(charset, response->charset);
}

int32_t OH_ArkWebResponse_SetHeaderByName(ArkWeb_Response* response,
                                          const char* name,
                                          const char* value,
                                          bool overwrite) {
  if (!name || !value)
    return invalid(__func__);
  WITH_RESPONSE(response);
  if (overwrite) {
    auto& headers = response->headers;
    for (auto it = headers.begin(); it != headers.end();) {
      it = strcasecmp(it->first.c_str(), name) == 0 ? headers.erase(it) : it + 1;
    }
  }
  response->headers.emplace_back(name, value);
  return ARKWEB_SUCCESS;
}

void OH_ArkWebResponse_GetHeaderByName(const ArkWeb_Response* response,
                                       const char* name,
                                       char** value) {
  if (!value)
    return;
  *value = nullptr;
  if (!response || !name)
    return;
  for (const auto& header : response->headers) {
    if (strcasecmp(header.first.c_str(), name) == 0) {
      *value = copyString(header.second);
      return;
    }
  }
}

// ---- Resource handler ----

int32_t OH_ArkWebResourceHandler_Destroy(const ArkWeb_ResourceHandler* resourceHandler) {
  if (!resourceHandler)
    return invalid(__func__);
  delete resourceHandler;
  return ARKWEB_SUCCESS;
}

int32_t OH_ArkWebResourceHandler_DidReceiveResponse(const ArkWeb_ResourceHandler* handler,
                                                    const ArkWeb_Response* response) {
  if (!handler || !response)
    return invalid(__func__);
  return handler->load->didReceiveResponse(response);
}

int32_t OH_ArkWebResourceHandler_DidReceiveData(const ArkWeb_ResourceHandler* handler,
                                                const uint8_t* buffer,
                                                int64_t bufLen) {
  if (!handler || (!buffer && bufLen > 0) || bufLen < 0)
    return invalid(__func__);
  return handler->load->didReceiveData(buffer, bufLen);
}

int32_t OH_ArkWebResourceHandler_DidFinish(const ArkWeb_ResourceHandler* handler) {
  if (!handler)
    return invalid(__func__);
  return handler->load->didFinish();
}

int32_t OH_ArkWebResourceHandler_DidFailWithError(const ArkWeb_ResourceHandler* handler,
                                                  ArkWeb_NetError errorCode) {
  if (!handler)
    return invalid(__func__);
  return handler->load->didFailWithError(errorCode, false);
}

int32_t OH_ArkWebResourceHandler_DidFailWithErrorV2(const ArkWeb_ResourceHandler* handler,
                                                    ArkWeb_NetError errorCode,
                                                    bool completeIfNoResponse) {
  if (!handler)
    return invalid(__func__);
  return handler->load->didFailWithError(errorCode, completeIfNoResponse);
}

}  // extern "C"
