#include "network/flume_request_listener.h"

#include "hilog/log.h"
#include "log_tags.h"

namespace velora {
namespace {
constexpr const char* kLogTag = log_tags::kFlumeRequestListener;
}

FlumeRequestListener::~FlumeRequestListener() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, kLogTag, "~FlumeRequestListener destructor");
}

void FlumeRequestListener::onFLHttpResponse(
    const flume::FLHttpRequest&,
    const std::shared_ptr<flume::FLHttpResponse>& response) {
  if (auto callback = callback_.lock()) {
    callback->onResponse(static_cast<int>(response->getStatusCode()),
                         response->getRepeatedHeadFields());
  }
}

void FlumeRequestListener::onFLHttpAuthenticationChallenge(
    const flume::FLHttpRequest&,
    const flume::FLHttpAuthenticationChallenge&) {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, kLogTag, "onFLHttpAuthenticationChallenge");
}

void FlumeRequestListener::onFLHttpReceiveData(const flume::FLHttpRequest&,
                                               const std::shared_ptr<flume::FLData>& data) {
  if (!data)
    return;
  if (auto callback = callback_.lock()) {
    callback->onData(reinterpret_cast<const unsigned char*>(data->data()), data->size());
  }
}

void FlumeRequestListener::onFLHttpError(const flume::FLHttpRequest&,
                                         const std::shared_ptr<flume::FLError>& error) {
  if (auto callback = callback_.lock()) {
    callback->onError(error->getCode(), ARKWEB_ERR_FAILED, error->getMessage());
  }
  delete this;
}

void FlumeRequestListener::onFLHttpFinish(const flume::FLHttpRequest&) {
  if (auto callback = callback_.lock())
    callback->onFinish();
  delete this;
}

}  // namespace velora
