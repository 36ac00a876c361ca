#include "network/ssr_request.h"

#include "first_chunk/ssr_client_info.h"
#include "hilog/log.h"
#include "log_tags.h"
#include "omni_ability/api_info_helper.h"

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
  const std::string& url = request_->getUrl();
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, log_tags::kSsrRequest,
               "%{public}s:send request, url:%{public}s", logId().c_str(), url.c_str());
  request_->addHeader("kp-client-context", SSRClientInfo::getClientInfo()->toString());
  std::string apiContext = ApiInfoHelper::getEncodedApiInfo(url);
  if (!apiContext.empty())
    request_->addHeader("api-context", apiContext);
  listener_ = std::make_shared<SSRRequestListener>(requestCallBack());
  service_ = SSRServiceFactory::createSSRService();
  service_->setTraceId(logId());
  service_->asyncCall(request_, listener_);
}

}  // namespace velora
