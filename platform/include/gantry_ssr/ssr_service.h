// gantry_ssr: the client of the SSR gateway. A server-rendered page is
// requested through the gateway instead of plain HTTP; its answer streams
// back to a listener.
#ifndef GANTRY_SSR_SSR_SERVICE_H
#define GANTRY_SSR_SSR_SERVICE_H

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace gantry_ssr {

enum class SsrHttpMethod : int {
  GET = 0,
  POST = 1,
};

// Name -> values in arrival order.
using SsrHeaders = std::map<std::string, std::list<std::string>>;

// One page request. Configure it before asyncCall; it is read-only after.
class SsrRequest {
 public:
  explicit SsrRequest(std::string url) : url_(std::move(url)) {}

  const std::string& getUrl() const { return url_; }
  // Adds a header, keeping earlier ones of the same name.
  void addHeader(const std::string& name, const std::string& value) {
    headers_.emplace_back(name, value);
  }
  const std::vector<std::pair<std::string, std::string>>& getHeaders() const { return headers_; }
  void setHttpMethod(SsrHttpMethod method) { method_ = method; }
  SsrHttpMethod getHttpMethod() const { return method_; }

 private:
  std::string url_;
  std::vector<std::pair<std::string, std::string>> headers_;
  SsrHttpMethod method_ = SsrHttpMethod::GET;
};

// A failed call: the carrier's code and a message that says what happened.
class SsrResponse {
 public:
  SsrResponse(int code, std::string message) : code_(code), message_(std::move(message)) {}
  int getCode() const { return code_; }
  const std::string& getMessage() const { return message_; }

 private:
  int code_;
  std::string message_;
};

// The events of one call, one at a time: onResponse once, onReceiveData zero
// or more times, then exactly one of onFinish or onError (which may come
// without onResponse).
class SsrListener {
 public:
  virtual ~SsrListener() = default;
  virtual void onResponse(std::shared_ptr<SsrRequest> request,
                          int statusCode,
                          const SsrHeaders& headers) = 0;
  virtual void onReceiveData(std::shared_ptr<SsrRequest> request, const std::string& data) = 0;
  virtual void onError(std::shared_ptr<SsrRequest> request,
                       std::shared_ptr<SsrResponse> response) = 0;
  virtual void onFinish(std::shared_ptr<SsrRequest> request) = 0;
};

// The gateway client (the module reaches it as tern::Singleton<SsrService>).
// Its rules are process-wide, whichever instance is asked.
class SsrService {
 public:
  // True when the gateway serves `url`: it starts with one of the configured
  // URL prefixes ($VELORA_SSR_RULES, comma-separated, on the host).
  bool validate(const std::string& url) const;

  // Sends `request` and streams its answer to `listener`, which is kept
  // alive until its last event. Returns at once; events come on the
  // carrier's thread. Redirects are delivered as they are. The carrier's
  // connect and idle timeouts apply.
  void asyncCall(const std::shared_ptr<SsrRequest>& request,
                 const std::shared_ptr<SsrListener>& listener);

  // Stops the call of `request` if it has not ended: the transfer ends at
  // once and its listener gets one onError. Any thread; a no-op for a call
  // that has ended or never started.
  void cancel(const std::shared_ptr<SsrRequest>& request);
};

}  // namespace gantry_ssr

#endif  // GANTRY_SSR_SSR_SERVICE_H
