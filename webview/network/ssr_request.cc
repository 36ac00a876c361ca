#include "network/ssr_request.h"

#include "first_chunk/ssr_client_info.h"
#include "hilog/log.h"
#include "log_tags.h"
#include "network/ssr_send_pool.h"
#include "omni_ability/api_info_helper.h"
#include "tern/singleton.h"

namespace velora {

SSRRequestListener::~SSRRequestListener() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, log_tags::kSsrRequestListener,
               "~SSRRequestListener destructor");
}

void SSRRequestListener::onResponse(std::shared_ptr<gantry_ssr::SsrRequest>,
                                    int statusCode,
                                    const HeaderMultimap& headers) {
  if (auto callback = callback_.lock())
    callback->onResponse(statusCode, headers);
}

void SSRRequestListener::onReceiveData(std::shared_ptr<gantry_ssr::SsrRequest>,
                                       const std::string& data) {
  if (auto callback = callback_.lock())
    callback->onData(reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

void SSRRequestListener::onError(std::shared_ptr<gantry_ssr::SsrRequest>,
                                 std::shared_ptr<gantry_ssr::SsrResponse> response) {
  if (auto callback = callback_.lock()) {
    callback->onError(response ? response->getCode() : 0, ARKWEB_ERR_FAILED,
                      response ? response->getMessage() : std::string());
  }
}

void SSRRequestListener::onFinish(std::shared_ptr<gantry_ssr::SsrRequest>) {
  if (auto callback = callback_.lock())
    callback->onFinish();
}

void SSRRequestListener::onNetResponse(int statusCode, const HeaderMultimap& headers) {
  auto callback = callback_.lock();
  if (auto* chunked = dynamic_cast<SSRChunkedCacheRequestCallBack*>(callback.get()))
    chunked->onNetResponse(statusCode, headers);
}

SSRRequest::~SSRRequest() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, log_tags::kSsrRequest, "%{public}s:~SSRRequest destructor",
               logId().c_str());
  // Nobody is left to read what is still on its way.
  cancel();
}

void SSRRequest::cancel() {
  state_->cancelled = true;
  // A send that has not left sees the flag; one that has is stopped here.
  // Both may call cancel, which is harmless.
  if (state_->sent && request_)
    tern::Singleton<gantry_ssr::SsrService>::getInstance().cancel(request_);
}

void SSRRequest::setUrl(const std::string& url) {
  request_ = std::make_shared<gantry_ssr::SsrRequest>(url);
}

std::string SSRRequest::getUrl() {
  return request_->getUrl();
}

void SSRRequest::setMethod(const std::string& method) {
  request_->setHttpMethod(method == "POST" ? gantry_ssr::SsrHttpMethod::POST
                                           : gantry_ssr::SsrHttpMethod::GET);
}

void SSRRequest::setHeader(const std::string& name, const std::string& value) {
  request_->addHeader(name, value);
}

void SSRRequest::sendRequest() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, log_tags::kSsrRequest,
               "%{public}s:send request, url:%{public}s", logId().c_str(),
               request_->getUrl().c_str());
  listener_ = std::make_shared<SSRRequestListener>(requestCallBack());
  service_ = SSRServiceFactory::createSSRService();
  service_->setTraceId(logId());
  SsrSendPool::getInstance().post(
      [request = request_, listener = listener_, service = service_, state = state_] {
        if (state->cancelled)
          return;  // the page went before its turn
        const std::string& url = request->getUrl();
        request->addHeader("kp-client-context", SSRClientInfo::getClientInfo()->toString());
        std::string apiContext = ApiInfoHelper::getEncodedApiInfo(url);
        if (!apiContext.empty())
          request->addHeader("api-context", apiContext);
        if (state->cancelled)
          return;
        service->asyncCall(request, listener);
        state->sent = true;
        if (state->cancelled)
          tern::Singleton<gantry_ssr::SsrService>::getInstance().cancel(request);
      });
}

}  // namespace velora
