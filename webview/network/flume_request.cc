#include "network/flume_request.h"

#include "hilog/log.h"
#include "log_tags.h"
#include "network/flume_request_listener.h"

namespace velora {

FlumeRequest::~FlumeRequest() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, log_tags::kFlumeRequest,
               "%{public}s:~FlumeRequest destructor", logId().c_str());
  // Nobody is left to read what is still on its way: the transfer stops (a
  // no-op once it has ended).
  if (sent_)
    flume::FLHttpSession::getSession()->cancel(request_);
}

void FlumeRequest::setUrl(const std::string& url) {
  request_ = flume::FLHttpRequest::create(url);
}

std::string FlumeRequest::getUrl() {
  return request_->getURLString();
}

void FlumeRequest::setMethod(const std::string& method) {
  request_->setMethod(method);
}

void FlumeRequest::setHeader(const std::string& name, const std::string& value) {
  request_->setHeadField(name, value);
}

void FlumeRequest::createRequestBody() {
  stream_ = flume::FLDataStream::create();
  request_->setBodyStream(stream_);
}

void FlumeRequest::setRequestBodyData(const unsigned char* data, int length, bool isEof) {
  // flume takes a mutable pointer; it only copies from it.
  stream_->write(reinterpret_cast<char*>(const_cast<unsigned char*>(data)),
                 static_cast<unsigned long>(static_cast<long>(length)), isEof);
}

void FlumeRequest::cancel() {
  if (sent_)
    flume::FLHttpSession::getSession()->cancel(request_);
}

void FlumeRequest::sendRequest() {
  auto* listener = new FlumeRequestListener(requestCallBack());
  flume::FLHttpSession::getSession()->send(request_, listener);
  sent_ = true;
}

}  // namespace velora
