// The outgoing request and the receiver of its results, shared by every
// carrier (HTTP, SSR gateway) and every caller (WebRequest, prefetch).
#ifndef VELORA_WEBVIEW_NETWORK_NET_REQUEST_H
#define VELORA_WEBVIEW_NETWORK_NET_REQUEST_H

#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "web/arkweb_net_error_list.h"

namespace velora {

// Header name -> values in arrival order. Names compare byte-wise.
using HeaderMultimap = std::map<std::string, std::list<std::string>>;

// Receives the results of one request, on the carrier's threads:
// onResponse once, onData zero or more times, then exactly one of onFinish
// or onError (which may come without onResponse).
//
// Receivers are always owned through std::shared_ptr made for their concrete
// class, never deleted through this base; the destructor is therefore not
// virtual, and the table holds only the four operations.
class NetRequestCallBack {
 public:
  virtual void onResponse(int statusCode, const HeaderMultimap& headers) = 0;
  virtual void onData(const unsigned char* data, unsigned long length) = 0;
  virtual void onFinish() = 0;
  // `code` is the carrier's own code, `netError` what the web engine is told.
  virtual void onError(int code, ArkWeb_NetError netError, const std::string& message) = 0;

  // Each name with its one value.
  static HeaderMultimap transformHeaders(
      const std::unordered_map<std::string, std::string>& headers);

 protected:
  ~NetRequestCallBack() = default;
};

// An outgoing request. Created by NetService with its URL set; configure it
// (method, headers, optional streamed body), then sendRequest(). Holds its
// receiver weakly: a receiver that is gone simply gets nothing.
class NetRequest {
 public:
  explicit NetRequest(std::shared_ptr<NetRequestCallBack> callback) : callback_(callback) {}
  virtual ~NetRequest() = default;

  // Binds the request to `url`; creates the carrier's request object. First.
  virtual void setUrl(const std::string& url) = 0;
  virtual std::string getUrl() = 0;
  virtual void setMethod(const std::string& method) = 0;
  virtual void setHeader(const std::string& name, const std::string& value) = 0;
  // Prepares a streamed body; before any setRequestBodyData.
  virtual void createRequestBody() = 0;
  // Appends one piece of the body; the last one has isEof true.
  virtual void setRequestBodyData(const unsigned char* data, int length, bool isEof) = 0;
  // Starts the transfer; results arrive later on the receiver.
  virtual void sendRequest() = 0;
  // Stops a sent request where the carrier can: its receiver then gets
  // onError. A carrier whose requests always run to their end ignores it.
  virtual void cancel() = 0;
  // The carrier's class name, for logs.
  virtual std::string name() = 0;

  // The receiver, or null once it is gone.
  std::shared_ptr<NetRequestCallBack> requestCallBack() const { return callback_.lock(); }

  // The text carriers print in their log lines (the creator's request tag).
  void setLogId(const std::string& logId) { logId_ = logId; }
  const std::string& logId() const { return logId_; }

 private:
  std::weak_ptr<NetRequestCallBack> callback_;
  std::string logId_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_NET_REQUEST_H
