#include "web_request/web_request.h"

#include <strings.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "intercept/intercept_manager.h"
#include "log_tags.h"
#include "network/net_service.h"
#include "prefetch/prefetch_network.h"
#include "tern/uri.h"
#include "tide_logger/log.h"
#include "utils/log_headers.h"

namespace velora {
namespace {

constexpr const char* kRequestTag = log_tags::kWebRequest;
constexpr const char* kNetworkTag = log_tags::kNetwork;
// Uploads are pumped in pieces of at most this buffer size minus one.
constexpr int kBodyBufferSize = 4096;

std::atomic<uint64_t> g_nextWebRequestId{1};

std::string textOf(const char* text) {
  return text ? std::string(text) : std::string();
}

std::string lowerTrimmed(const std::string& text) {
  size_t start = text.find_first_not_of(" \t");
  size_t end = text.find_last_not_of(" \t");
  std::string out = start == std::string::npos ? "" : text.substr(start, end - start + 1);
  for (char& c : out)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

// "Text/HTML; Charset=UTF-8" -> mime type text/html, charset utf-8.
void applyContentType(ArkWeb_Response* response, const std::string& contentType) {
  size_t start = 0;
  for (;;) {
    size_t end = contentType.find(';', start);
    std::string part = contentType.substr(start, end == std::string::npos ? end : end - start);
    size_t eq = part.find('=');
    std::string key = lowerTrimmed(part.substr(0, eq));
    std::string value = eq == std::string::npos ? "" : lowerTrimmed(part.substr(eq + 1));
    if (!key.empty() && key.find('/') != std::string::npos && eq == std::string::npos) {
      OH_ArkWebResponse_SetMimeType(response, key.c_str());
    }
    if (key == "charset" && !value.empty())
      OH_ArkWebResponse_SetCharset(response, value.c_str());
    if (end == std::string::npos)
      return;
    start = end + 1;
  }
}

timespec now() {
  timespec ts{};
  timespec_get(&ts, TIME_UTC);
  return ts;
}

}  // namespace

uint64_t getNextWebRequestId() {
  return g_nextWebRequestId.fetch_add(1);
}

WebRequest::WebRequest(std::shared_ptr<WebInfo> webInfo,
                       const ArkWeb_ResourceRequest* request,
                       const ArkWeb_ResourceHandler* resourceHandler)
    : request_(const_cast<ArkWeb_ResourceRequest*>(request)),
      resourceHandler_(const_cast<ArkWeb_ResourceHandler*>(resourceHandler)),
      webInfo_(std::move(webInfo)),
      id_(getNextWebRequestId()),
      tag_("[" + webInfo_->webTag + "|" + std::to_string(id_) + "]") {}

WebRequest::~WebRequest() {
  tide::Log::build(tide::kInfo, kRequestTag)
      .event("~WebRequest", tag_)
      .key("url")
      .value(url_)
      .done();
  // The upload stream goes first: a read callback running on the engine's
  // worker thread still uses the fields released below.
  destroyArkWebBody();
  { std::lock_guard<std::mutex> wait(bodyCallbackMutex_); }
  destroyArkWebRequest();
  destroyArkWebResponse();
  destroyInternal();
  std::atomic_store(&netRequest_, std::shared_ptr<NetRequest>());
  webInfo_.reset();
}

// ---- Start decision ----

void WebRequest::CoreStart() {
  OH_ArkWebResourceRequest_GetUrl(request_, &url_);
  tide::Log::build(tide::kInfo, kRequestTag)
      .event("requestStart", tag_)
      .key("url")
      .value(url_)
      .done();
  if (!url_) {
    tide::Log::build(tide::kInfo, kRequestTag)
        .event("requestStartError", tag_)
        .key("url")
        .value("")
        .done();
    return;
  }
  isMainFrame_ = OH_ArkWebResourceRequest_IsMainFrame(request_);
  if (isMainFrame_) {
    if (checkPrefetchUrl()) {
      // The prefetch has replayed into this object and goes on live.
      logPrefetchHit();
      reportPrefetchStats(url_, 1);
      return;
    }
    reportPrefetchStats(url_, 0);
  }
  OH_ArkWebResourceRequest_GetMethod(request_, &method_);
  OH_ArkWebResourceRequest_GetReferrer(request_, &referrer_);
  if (referrer_)
    headers_["Referer"] = referrer_;
  copyRequestHeaders();
  ArkWeb_HttpBodyStream* stream = nullptr;
  OH_ArkWebResourceRequest_GetHttpBodyStream(request_, &stream);
  bodyStream_.store(stream);
  // Packages answer bodiless GETs alone. A request with a body is sent from
  // here: its stream may only be set up on this thread, the engine's IO
  // thread, and a package lookup answers on its own.
  if (!stream && textOf(method_) == "GET") {
    sendStrataRequest();
  } else {
    sendNetRequest();
  }
}

bool WebRequest::checkPrefetchUrl() {
  if (webInfo_->prefetchId == "0")
    return false;
  if (!url_ || webInfo_->prefetchUrl != url_)
    return false;
  if (weak_from_this().expired())
    return false;
  // Held before the claim: a removal between the two cannot cut it off.
  std::shared_ptr<void> hold = PrefetchNetwork::keepAlive(webInfo_->prefetchId);
  if (!PrefetchNetwork::consumePrefetch(webInfo_->prefetchId, shared_from_this()))
    return false;
  prefetchHold_ = std::move(hold);
  return true;
}

void WebRequest::logPrefetchHit() {
  auto entry = tide::Log::build(tide::kInfo, kNetworkTag);
  entry.event("request", tag_)
      .parentId(webInfo_->webTag)
      .key("url")
      .value(url_)
      .key("isHTML")
      .value(isMainFrame_)
      .key("prefetchHit")
      .value(true)
      .key("prefetchId")
      .value(webInfo_->prefetchId)
      .key("prefetchUrl")
      .value(webInfo_->prefetchUrl);
  if (std::shared_ptr<PrefetchRequest> prefetch =
          PrefetchNetwork::getPrefetchRequest(webInfo_->prefetchId)) {
    entry.key("method")
        .value(prefetch->getMethod())
        .timestamp(static_cast<int64_t>(prefetch->getRequestStartTime()))
        .key("header")
        .value(headersForLog(prefetch->getHeaders()));
  }
  entry.done();
}

void WebRequest::copyRequestHeaders() {
  // GET and HEAD lose their validators so the answer is always a full
  // response, never a 304 the module could not serve from.
  std::string method = textOf(method_);
  bool dropValidators = method == "GET" || method == "HEAD";
  ArkWeb_RequestHeaderList* list = nullptr;
  OH_ArkWebResourceRequest_GetRequestHeaders(request_, &list);
  if (!list)
    return;
  int32_t size = OH_ArkWebRequestHeaderList_GetSize(list);
  for (int32_t index = 0; index < size; ++index) {
    char* name = nullptr;
    char* value = nullptr;
    OH_ArkWebRequestHeaderList_GetHeader(list, index, &name, &value);
    if (name && value) {
      bool validator =
          std::strcmp(name, "If-None-Match") == 0 || std::strcmp(name, "If-Modified-Since") == 0;
      if (!(dropValidators && validator))
        headers_[name] = value;
    }
    OH_ArkWeb_ReleaseString(name);
    OH_ArkWeb_ReleaseString(value);
  }
  OH_ArkWebRequestHeaderList_Destroy(list);
}

void WebRequest::sendNetRequest() {
  std::shared_ptr<NetRequest> netRequest = NetService::createNetRequest(url_, shared_from_this());
  netRequest->setLogId(tag_);
  std::atomic_store(&netRequest_, netRequest);
  netRequest->setMethod(textOf(method_));
  for (const auto& [name, value] : headers_)
    netRequest->setHeader(name, value);

  ArkWeb_HttpBodyStream* stream = bodyStream_.load();
  startTime_ = now();

  auto entry = tide::Log::build(tide::kInfo, kNetworkTag);
  entry.event("request", tag_).parentId(webInfo_->webTag);
  std::string type = netRequest->name();
  if (!type.empty())
    entry.key("type").value(type);
  entry.key("url")
      .value(url_)
      .key("method")
      .value(method_)
      .key("isHTML")
      .value(isMainFrame_)
      .key("header")
      .value(entry.wanted() ? headersForLog(headers_) : nlohmann::json())
      .key("prefetchHit")
      .value(false)
      .key("hasBody")
      .value(stream != nullptr)
      .done();
  if (!stream) {
    netRequest->sendRequest();
    return;
  }
  // A request with a body goes out once the body can be read (InitCallback):
  // a body that cannot be read never reaches the server as a cut-short
  // request.
  netRequest->createRequestBody();
  OH_ArkWebHttpBodyStream_SetUserData(stream, this);
  OH_ArkWebHttpBodyStream_SetReadCallback(stream, ReadCallback);
  int32_t started = OH_ArkWebHttpBodyStream_Init(stream, InitCallback);
  if (started != ARKWEB_SUCCESS) {
    std::lock_guard<std::mutex> running(bodyCallbackMutex_);
    failBodyInit(started);
  }
}

void WebRequest::netStop() {
  std::atomic_store(&netRequest_, std::shared_ptr<NetRequest>());
  netStopped_ = true;
}

int64_t WebRequest::getTimeDiff(const timespec& start, const timespec& end) {
  double startMs = start.tv_sec * 1000.0 + start.tv_nsec / 1000000.0;
  double endMs = end.tv_sec * 1000.0 + end.tv_nsec / 1000000.0;
  return static_cast<int64_t>(endMs - startMs);
}

void WebRequest::addToRuntimeWhiteList(const std::string& url,
                                       const std::string& a,
                                       const std::string& b) {
  tide::Log::build(tide::kInfo, kNetworkTag)
      .event("addToRunTimeList", tag_)
      .key("url")
      .value(url)
      .key("a")
      .value(a)
      .key("b")
      .value(b)
      .done();
  tern::URI uri = tern::URI::parseURL(url);
  uri.clearQuery();
  std::string page = uri.toString();
  if (!page.empty())
    InterceptManager::getInstance().addUrlToRuntimeList(page);
}

// ---- Delivery ----

void WebRequest::onResponse(int statusCode, const HeaderMultimap& headers) {
  OH_ArkWeb_CreateResponse(&response_);
  OH_ArkWebResponse_SetStatus(response_, statusCode);
  const std::string* contentType = nullptr;
  for (const auto& [name, values] : headers) {
    for (const auto& value : values) {
      // No overwrite: repeated fields such as Set-Cookie all reach the page.
      OH_ArkWebResponse_SetHeaderByName(response_, name.c_str(), value.c_str(), false);
    }
    if (!contentType && !values.empty() && strcasecmp(name.c_str(), "content-type") == 0) {
      contentType = &values.front();
    }
  }
  if (contentType && InterceptManager::getInstance().isInterceptMimeType()) {
    applyContentType(response_, *contentType);
  }
  OH_ArkWebResourceHandler_DidReceiveResponse(resourceHandler_, response_);

  auto entry = tide::Log::build(tide::kInfo, kNetworkTag);
  entry.event("response", tag_).parentId(webInfo_->webTag);
  entry.key("statusCode").value(statusCode).key("url").value(url_);
  if (!headers.empty())
    entry.key("header").value(entry.wanted() ? headersForLog(headers) : nlohmann::json());
  entry.done();
}

void WebRequest::onData(const unsigned char* data, unsigned long length) {
  receivedBytes_ += length;
  OH_ArkWebResourceHandler_DidReceiveData(resourceHandler_, data, static_cast<int64_t>(length));
}

void WebRequest::onFinish() {
  endTime_ = now();
  OH_ArkWebResourceHandler_DidFinish(resourceHandler_);
  tide::Log::build(tide::kInfo, kNetworkTag)
      .event("finished", tag_)
      .parentId(webInfo_->webTag)
      .key("url")
      .value(url_)
      .key("dataSize")
      .value(receivedBytes_)
      .done();
  netStop();
}

void WebRequest::onError(int code, ArkWeb_NetError /*error*/, const std::string& message) {
  // The page sees the generic failure; the carrier's code is only logged.
  if (!response_) {
    OH_ArkWeb_CreateResponse(&response_);
    OH_ArkWebResponse_SetError(response_, ARKWEB_ERR_FAILED);
    OH_ArkWebResourceHandler_DidReceiveResponse(resourceHandler_, response_);
    OH_ArkWebResourceHandler_DidFinish(resourceHandler_);
  } else {
    OH_ArkWebResourceHandler_DidFailWithError(resourceHandler_, ARKWEB_ERR_FAILED);
  }
  tide::Log::build(tide::kError, kNetworkTag)
      .event("finished", tag_)
      .parentId(webInfo_->webTag)
      .key("statusCode")
      .value(code)
      .key("url")
      .value(url_)
      .error(message)
      .done();
  netStop();
  reportNetError(textOf(url_), code, message);
}

// ---- Upload pump ----

void WebRequest::InitCallback(const ArkWeb_HttpBodyStream* stream, ArkWeb_NetError result) {
  auto* self = static_cast<WebRequest*>(OH_ArkWebHttpBodyStream_GetUserData(stream));
  if (!self)
    return;
  std::lock_guard<std::mutex> running(self->bodyCallbackMutex_);
  if (result != ARKWEB_NET_OK) {
    self->failBodyInit(result);
    return;
  }
  std::shared_ptr<NetRequest> netRequest = std::atomic_load(&self->netRequest_);
  if (!netRequest) {
    self->releaseBody();
    return;
  }
  bool chunked = OH_ArkWebHttpBodyStream_IsChunked(stream);
  uint64_t size = OH_ArkWebHttpBodyStream_GetSize(stream);
  tide::Log::build(tide::kInfo, kRequestTag)
      .event("bodyReadCallback", self->tag_)
      .key("url")
      .value(self->url_)
      .key("chunked")
      .value(chunked)
      .key("size")
      .value(size)
      .done();
  if (!chunked && size == 0) {
    // A read must ask for at least one byte: an empty body is over before
    // it starts.
    self->endBody();
  } else {
    // A chunked stream has no size: it is read in full pieces until its end.
    self->bodyData_.size =
        (!chunked && size < kBodyBufferSize) ? static_cast<int>(size) + 1 : kBodyBufferSize;
    self->bodyData_.buffer = new uint8_t[self->bodyData_.size]();
    self->bodyData_.readSize = self->bodyData_.size - 1;
    self->readNextBodyPart();
  }
  netRequest->sendRequest();
}

void WebRequest::failBodyInit(int result) {
  releaseBody();
  // The request never went out: nothing else will answer the page.
  onError(result, ARKWEB_ERR_FAILED,
          "the upload body could not be read (its stream failed to initialize with " +
              std::to_string(result) + "); the request was not sent");
}

void WebRequest::endBody() {
  if (std::shared_ptr<NetRequest> netRequest = std::atomic_load(&netRequest_)) {
    static const unsigned char kNothing = 0;
    netRequest->setRequestBodyData(&kNothing, 0, true);
  }
  releaseBody();
}

void WebRequest::readNextBodyPart() {
  OH_ArkWebHttpBodyStream_Read(bodyStream_.load(), bodyData_.buffer, bodyData_.readSize);
}

void WebRequest::ReadCallback(const ArkWeb_HttpBodyStream* stream, uint8_t* buffer, int bytesRead) {
  auto* self = static_cast<WebRequest*>(OH_ArkWebHttpBodyStream_GetUserData(stream));
  if (!self)
    return;
  std::lock_guard<std::mutex> running(self->bodyCallbackMutex_);
  bool eof = OH_ArkWebHttpBodyStream_IsEof(stream);
  std::shared_ptr<NetRequest> netRequest = std::atomic_load(&self->netRequest_);
  if (!netRequest) {
    // The request already finished or failed: the rest of the body is moot.
    self->releaseBody();
    self->logBodyRead("bodyReadCallbackNetRequestNull", bytesRead, eof);
    return;
  }
  if (bytesRead < 0) {
    // The server has part of a body that will never be complete: the
    // transfer is stopped, and its failure reaches the page.
    self->releaseBody();
    tide::Log::build(tide::kError, kRequestTag)
        .event("bodyReadFailed", self->tag_)
        .key("url")
        .value(self->url_)
        .key("read")
        .value(bytesRead)
        .done();
    netRequest->cancel();
    return;
  }
  bool last = bytesRead == 0 || eof;
  netRequest->setRequestBodyData(buffer, bytesRead, last);
  std::memset(buffer, 0, static_cast<size_t>(self->bodyData_.size));
  if (last) {
    self->releaseBody();
  } else {
    self->readNextBodyPart();
  }
  self->logBodyRead("bodyReadCallback", bytesRead, eof);
}

void WebRequest::logBodyRead(const char* event, int bytesRead, bool eof) const {
  tide::Log::build(tide::kInfo, kRequestTag)
      .event(event, tag_)
      .key("url")
      .value(url_)
      .key("read")
      .value(bytesRead)
      .key("isEof")
      .value(eof)
      .done();
}

// ---- Clean-up; each is safe to call twice ----

void WebRequest::destroyArkWebRequest() {
  if (request_)
    OH_ArkWebResourceRequest_Destroy(request_);
  request_ = nullptr;
  if (resourceHandler_)
    OH_ArkWebResourceHandler_Destroy(resourceHandler_);
  resourceHandler_ = nullptr;
  OH_ArkWeb_ReleaseString(url_);
  OH_ArkWeb_ReleaseString(method_);
  OH_ArkWeb_ReleaseString(referrer_);
  url_ = method_ = referrer_ = nullptr;
}

void WebRequest::destroyArkWebResponse() {
  if (response_)
    OH_ArkWeb_DestroyResponse(response_);
  response_ = nullptr;
}

void WebRequest::destroyArkWebBody() {
  if (ArkWeb_HttpBodyStream* stream = bodyStream_.exchange(nullptr)) {
    OH_ArkWebResourceRequest_DestroyHttpBodyStream(stream);
  }
}

void WebRequest::releaseBody() {
  destroyArkWebBody();
  destroyBodyData();
}

void WebRequest::destroyBodyData() {
  delete[] bodyData_.buffer;
  bodyData_.buffer = nullptr;
  bodyData_.size = 0;
  bodyData_.readSize = 0;
}

}  // namespace velora
