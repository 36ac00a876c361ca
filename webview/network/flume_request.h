// The HTTP carrier: a NetRequest over flume.
#ifndef VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_H
#define VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_H

#include "flume/flume.h"
#include "network/net_request.h"

namespace velora {

class FlumeRequest : public NetRequest {
 public:
  explicit FlumeRequest(std::shared_ptr<NetRequestCallBack> callback)
      : NetRequest(std::move(callback)) {}
  ~FlumeRequest() override;

  void setUrl(const std::string& url) override;
  std::string getUrl() override;
  void setMethod(const std::string& method) override;
  void setHeader(const std::string& name, const std::string& value) override;
  void createRequestBody() override;
  void setRequestBodyData(const unsigned char* data, int length, bool isEof) override;
  // Each call sends the request once more with a listener of its own.
  void sendRequest() override;
  // Stops the transfer once sent: the receiver, if still there, gets onError.
  // Before the send it does nothing. Results of a transfer that runs on are
  // dropped when the receiver is gone; destroying the request stops it too.
  void cancel() override;
  std::string name() override { return "FlumeRequest"; }

 private:
  std::shared_ptr<flume::FLHttpRequest> request_;  // null until setUrl
  std::shared_ptr<flume::FLDataStream> stream_;    // null until createRequestBody
  bool sent_ = false;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_FLUME_REQUEST_H
