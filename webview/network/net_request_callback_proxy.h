#ifndef VELORA_WEBVIEW_NETWORK_NET_REQUEST_CALLBACK_PROXY_H
#define VELORA_WEBVIEW_NETWORK_NET_REQUEST_CALLBACK_PROXY_H

#include <functional>

#include "network/net_request.h"

namespace velora {

// A receiver that forwards each result to a function; an empty function
// makes that result a no-op.
class NetRequestCallBackProxy final : public NetRequestCallBack {
 public:
  using OnResponse = std::function<void(int, const HeaderMultimap&)>;
  using OnData = std::function<void(const unsigned char*, unsigned long)>;
  using OnFinish = std::function<void()>;
  using OnError = std::function<void(int, ArkWeb_NetError, const std::string&)>;

  NetRequestCallBackProxy(OnResponse onResponse, OnData onData, OnFinish onFinish, OnError onError)
      : onResponse_(std::move(onResponse)),
        onData_(std::move(onData)),
        onFinish_(std::move(onFinish)),
        onError_(std::move(onError)) {}

  void onResponse(int statusCode, const HeaderMultimap& headers) override {
    if (onResponse_)
      onResponse_(statusCode, headers);
  }
  void onData(const unsigned char* data, unsigned long length) override {
    if (onData_)
      onData_(data, length);
  }
  void onFinish() override {
    if (onFinish_)
      onFinish_();
  }
  void onError(int code, ArkWeb_NetError netError, const std::string& message) override {
    if (onError_)
      onError_(code, netError, message);
  }

 private:
  OnResponse onResponse_;
  OnData onData_;
  OnFinish onFinish_;
  OnError onError_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_NET_REQUEST_CALLBACK_PROXY_H
