// The SSR gateway client on the flume carrier.
#include "gantry_ssr/ssr_service.h"
#include "gantry_ssr/host_config.h"

#include <map>
#include <mutex>

#include "common/host_env.h"
#include "flume/flume.h"
#include "tern/string_utils.h"

namespace gantry_ssr {
namespace {

// "a, b,,c" -> {"a", "b", "c"}: blank entries dropped, spaces trimmed.
std::vector<std::string> splitPrefixes(const std::string& text) {
  std::vector<std::string> prefixes;
  for (const std::string& piece : tern::string_utils::split(text, ",")) {
    size_t first = piece.find_first_not_of(" \t");
    if (first != std::string::npos)
      prefixes.push_back(piece.substr(first, piece.find_last_not_of(" \t") - first + 1));
  }
  return prefixes;
}

// The transfers of calls that have not ended, by their request, so that a
// call can be cancelled.
struct LiveCalls {
  std::mutex mutex;
  std::map<const SsrRequest*, std::shared_ptr<flume::FLHttpRequest>> transfers;

  void add(const SsrRequest* request, std::shared_ptr<flume::FLHttpRequest> transfer) {
    std::lock_guard<std::mutex> lock(mutex);
    transfers[request] = std::move(transfer);
  }
  void remove(const SsrRequest* request) {
    std::lock_guard<std::mutex> lock(mutex);
    transfers.erase(request);
  }
  std::shared_ptr<flume::FLHttpRequest> find(const SsrRequest* request) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = transfers.find(request);
    return it == transfers.end() ? nullptr : it->second;
  }
};

// Never destroyed: calls may still end while the process exits.
LiveCalls& liveCalls() {
  static LiveCalls* instance = new LiveCalls;
  return *instance;
}

// Carries one call's flume events to its listener; flume calls them one at a
// time on its event thread. Deletes itself with the last event.
class CallListener : public flume::IFLHttpSessionListener {
 public:
  CallListener(std::shared_ptr<SsrRequest> request, std::shared_ptr<SsrListener> listener)
      : request_(std::move(request)), listener_(std::move(listener)) {}

  void onFLHttpSentCompleted(const flume::FLHttpRequest&, bool) override {}
  void onFLHttpResponse(const flume::FLHttpRequest&,
                        const std::shared_ptr<flume::FLHttpResponse>& response) override {
    listener_->onResponse(request_, static_cast<int>(response->getStatusCode()),
                          response->getRepeatedHeadFields());
  }
  bool onFLHttpWillRedirection(const flume::FLHttpRequest&,
                               const flume::FLHttpRequest&,
                               const std::shared_ptr<flume::FLHttpResponse>&) override {
    return false;
  }
  void onFLHttpAuthenticationChallenge(const flume::FLHttpRequest&,
                                       const flume::FLHttpAuthenticationChallenge&) override {}
  void onFLHttpReceiveData(const flume::FLHttpRequest&,
                           const std::shared_ptr<flume::FLData>& data) override {
    if (data && data->size() > 0)
      listener_->onReceiveData(request_, std::string(data->data(), data->size()));
  }
  void onFLHttpError(const flume::FLHttpRequest&,
                     const std::shared_ptr<flume::FLError>& error) override {
    liveCalls().remove(request_.get());
    listener_->onError(request_,
                       std::make_shared<SsrResponse>(error->getCode(), error->getMessage()));
    delete this;
  }
  void onFLHttpCollectingMetrics(const flume::FLHttpRequest&,
                                 const flume::FLHttpMetrics&) override {}
  void onFLHttpFinish(const flume::FLHttpRequest&) override {
    liveCalls().remove(request_.get());
    listener_->onFinish(request_);
    delete this;
  }

 private:
  std::shared_ptr<SsrRequest> request_;
  std::shared_ptr<SsrListener> listener_;
};

struct Rules {
  std::mutex mutex;
  std::vector<std::string> prefixes = splitPrefixes(host::envOr("VELORA_SSR_RULES", ""));
};

// Never destroyed: requests may still be validated while the process exits.
Rules& rules() {
  static Rules* instance = new Rules;
  return *instance;
}

}  // namespace

bool SsrService::validate(const std::string& url) const {
  Rules& r = rules();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (const auto& prefix : r.prefixes) {
    if (url.compare(0, prefix.size(), prefix) == 0)
      return true;
  }
  return false;
}

void SsrService::asyncCall(const std::shared_ptr<SsrRequest>& request,
                           const std::shared_ptr<SsrListener>& listener) {
  if (!request || !listener)
    return;
  auto httpRequest = flume::FLHttpRequest::create(request->getUrl());
  httpRequest->setMethod(request->getHttpMethod() == SsrHttpMethod::POST ? "POST" : "GET");
  for (const auto& [name, value] : request->getHeaders())
    httpRequest->addHeadField(name, value);
  // Registered before the send: a cancel that comes right after it finds it.
  liveCalls().add(request.get(), httpRequest);
  flume::FLHttpSession::getSession()->send(httpRequest, new CallListener(request, listener));
}

void SsrService::cancel(const std::shared_ptr<SsrRequest>& request) {
  if (!request)
    return;
  if (auto transfer = liveCalls().find(request.get()))
    flume::FLHttpSession::getSession()->cancel(transfer);
}

void setRules(std::vector<std::string> prefixes) {
  std::vector<std::string> kept;
  for (auto& prefix : prefixes) {
    if (!prefix.empty())
      kept.push_back(std::move(prefix));
  }
  Rules& r = rules();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.prefixes = std::move(kept);
}

std::vector<std::string> getRules() {
  Rules& r = rules();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.prefixes;
}

}  // namespace gantry_ssr
