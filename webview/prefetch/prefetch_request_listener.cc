#include "prefetch/prefetch_request_listener.h"

#include "hilog/log.h"
#include "log_tags.h"
#include "prefetch/prefetch_network.h"
#include "tide_logger/log.h"

namespace velora {
namespace {
constexpr const char* kLogTag = log_tags::kPrefetchRequestListener;
}

PrefetchRequestListener::~PrefetchRequestListener() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, kLogTag, "%{public}s:~PrefetchRequestListener destructor",
               request_->getRequestId().c_str());
}

void PrefetchRequestListener::logEvent(const char* event) const {
  tide::Log::build(tide::kInfo, kLogTag)
      .event(event)
      .key("url")
      .value(request_->getUrl())
      .key("id")
      .value(request_->getRequestId())
      .done();
}

void PrefetchRequestListener::onResponse(int statusCode, const HeaderMultimap& headers) {
  logEvent("response");
  if (requestCallBack_)
    requestCallBack_->onResponse(statusCode, headers);
  if (requestCache_)
    requestCache_->onResponse(statusCode, headers);
}

void PrefetchRequestListener::onNetResponse(int statusCode, const HeaderMultimap& headers) {
  logEvent("netResponse");
  if (auto* ssr = dynamic_cast<SSRChunkedCacheRequestCallBack*>(requestCallBack_.get())) {
    ssr->onNetResponse(statusCode, headers);
  }
}

void PrefetchRequestListener::abandon() {
  if (requestCallBack_ && !receiverEnded())
    requestCallBack_->onError(ARKWEB_ERR_ABORTED, ARKWEB_ERR_ABORTED, "prefetch removed");
}

void PrefetchRequestListener::onData(const unsigned char* data, unsigned long length) {
  if (requestCallBack_ && !receiverEnded_)
    requestCallBack_->onData(data, length);
  if (requestCache_)
    requestCache_->onData(data, length);
}

void PrefetchRequestListener::onFinish() {
  tide::Log::build(tide::kInfo, kLogTag)
      .event("finish")
      .key("url")
      .value(request_->getUrl())
      .key("id")
      .value(request_->getRequestId())
      .key("recordedBytes")
      .value(requestCache_ ? requestCache_->recordedBytes() : 0ul)
      .done();
  if (requestCallBack_ && !receiverEnded())
    requestCallBack_->onFinish();
  if (requestCache_) {
    requestCache_->onFinish();
    if (requestCache_->isConsumed())
      PrefetchNetwork::removePrefetch(request_->getRequestId());
  }
}

void PrefetchRequestListener::onError(int code, ArkWeb_NetError error, const std::string& message) {
  logEvent("error");
  if (requestCallBack_ && !receiverEnded())
    requestCallBack_->onError(code, error, message);
  if (requestCache_) {
    requestCache_->onError(code, error, message);
    PrefetchNetwork::removePrefetch(request_->getRequestId());
  }
}

}  // namespace velora
