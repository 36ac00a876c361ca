// The host web engine: components by tag, page loads through the installed
// scheme handler or the engine's own network stack (flume), the component
// API's notices, and the host-only WebComponent driver.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <map>

#include "arkweb/engine_internal.h"
#include "flume/flume.h"
#include "hilog/log.h"
#include "tern/host_config.h"
#include "web/arkweb_interface.h"

namespace arkweb_host {
namespace {

constexpr int kMaxRedirects = 20;

struct Notice {
  ArkWeb_OnComponentCallback callback;
  void* userData;
};

// Components and the notices registered for their tags.
class PageLoad;

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::map<std::string, ArkWeb_SchemeHandler*>> handlers;  // tag -> scheme
  std::map<std::string, bool> components;                                        // tag -> alive
  std::map<std::string, std::vector<Notice>> onDestroy, onPageBegin, onPageEnd, onAttached;
  // Loads of each component, cancelled when it is destroyed.
  std::map<std::string, std::vector<std::weak_ptr<PageLoad>>> loads;
};

Registry& registry() {
  static Registry* instance = new Registry();  // used until exit
  return *instance;
}

// Loads that have not called their `done` yet.
struct Activity {
  std::mutex mutex;
  std::condition_variable idle;
  int active = 0;
};

Activity& activity() {
  static Activity* instance = new Activity();
  return *instance;
}

std::atomic<uint64_t> g_nextRequestId{1};

void fire(std::map<std::string, std::vector<Notice>>& table, const std::string& tag) {
  std::vector<Notice> notices;
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto it = table.find(tag);
    if (it == table.end())
      return;
    notices = it->second;
  }
  for (const Notice& notice : notices)
    notice.callback(tag.c_str(), notice.userData);
}

void parseContentType(const std::string& value, std::string* mime, std::string* charset) {
  auto lower = [](std::string text) {
    size_t start = text.find_first_not_of(" \t");
    size_t end = text.find_last_not_of(" \t");
    text = start == std::string::npos ? "" : text.substr(start, end - start + 1);
    for (char& c : text)
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
  };
  size_t semicolon = value.find(';');
  *mime = lower(value.substr(0, semicolon));
  while (semicolon != std::string::npos) {
    size_t next = value.find(';', semicolon + 1);
    std::string part =
        value.substr(semicolon + 1, next == std::string::npos ? next : next - semicolon - 1);
    size_t eq = part.find('=');
    if (eq != std::string::npos && lower(part.substr(0, eq)) == "charset") {
      std::string cs = lower(part.substr(eq + 1));
      if (cs.size() >= 2 && cs.front() == '"' && cs.back() == '"')
        cs = cs.substr(1, cs.size() - 2);
      *charset = cs;
    }
    semicolon = next;
  }
}

int netErrorFromCurl(int code) {
  switch (code) {
    case 6:
      return ARKWEB_ERR_NAME_NOT_RESOLVED;
    case 7:
      return ARKWEB_ERR_CONNECTION_REFUSED;
    case 28:
      return ARKWEB_ERR_TIMED_OUT;
    case 42:
      return ARKWEB_ERR_ABORTED;
    case 52:
      return ARKWEB_ERR_EMPTY_RESPONSE;
    case 55:
    case 56:
      return ARKWEB_ERR_CONNECTION_RESET;
    case 61:
      return ARKWEB_ERR_CONTENT_DECODING_FAILED;
    default:
      return ARKWEB_ERR_FAILED;
  }
}

std::string resolveLocation(const std::string& base, const std::string& location) {
  if (location.find("://") != std::string::npos)
    return location;
  size_t schemeEnd = base.find("://");
  if (schemeEnd == std::string::npos)
    return location;
  if (location.compare(0, 2, "//") == 0)
    return base.substr(0, schemeEnd + 1) + location;
  size_t pathStart = base.find('/', schemeEnd + 3);
  std::string origin = pathStart == std::string::npos ? base : base.substr(0, pathStart);
  if (!location.empty() && location[0] == '/')
    return origin + location;
  std::string path = pathStart == std::string::npos ? "/" : base.substr(pathStart);
  path = path.substr(0, path.find_first_of("?#"));
  return origin + path.substr(0, path.rfind('/') + 1) + location;
}

class PageLoad;

// The engine's own network loading, for requests no handler took.
class NetworkListener : public flume::IFLHttpSessionListener {
 public:
  explicit NetworkListener(std::shared_ptr<PageLoad> load) : load_(std::move(load)) {}
  void onFLHttpSentCompleted(const flume::FLHttpRequest&, bool) override {}
  void onFLHttpResponse(const flume::FLHttpRequest&,
                        const std::shared_ptr<flume::FLHttpResponse>& response) override;
  bool onFLHttpWillRedirection(const flume::FLHttpRequest&,
                               const flume::FLHttpRequest&,
                               const std::shared_ptr<flume::FLHttpResponse>&) override {
    return false;
  }
  void onFLHttpAuthenticationChallenge(const flume::FLHttpRequest&,
                                       const flume::FLHttpAuthenticationChallenge&) override {}
  void onFLHttpReceiveData(const flume::FLHttpRequest&,
                           const std::shared_ptr<flume::FLData>& data) override;
  void onFLHttpError(const flume::FLHttpRequest&,
                     const std::shared_ptr<flume::FLError>& error) override;
  void onFLHttpCollectingMetrics(const flume::FLHttpRequest&,
                                 const flume::FLHttpMetrics&) override {}
  void onFLHttpFinish(const flume::FLHttpRequest&) override;

 private:
  std::shared_ptr<PageLoad> load_;
};

// Cancels `weak` (if it still lives) on the engine's IO thread, where every
// cancel runs, after `delayMs`.
void cancelOnIo(std::weak_ptr<PageLoad> weak, long delayMs = 0);

// Cancels whichever hop of a load is current: a followed redirect is a new
// PageLoad under the same handle.
class LoadCanceller : public LoadHandle {
 public:
  void cancel() override {
    std::weak_ptr<PageLoad> current;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requested_ = true;
      current = current_;
    }
    cancelOnIo(current);
  }

  void track(const std::shared_ptr<PageLoad>& load) {
    bool requested = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      current_ = load;
      requested = requested_;
    }
    if (requested)
      cancelOnIo(load);
  }

 private:
  std::mutex mutex_;
  std::weak_ptr<PageLoad> current_;  // guarded by mutex_
  bool requested_ = false;           // guarded by mutex_
};

class PageLoad : public Load {
 public:
  PageLoad(std::string tag,
           LoadOptions options,
           std::function<void(LoadResult)> done,
           std::shared_ptr<LoadCanceller> canceller,
           int redirects)
      : tag_(std::move(tag)), done_(std::move(done)), canceller_(std::move(canceller)) {
    options_ = std::move(options);
    result_.url = options_.url;
    result_.redirects = redirects;
    result_.timing.start = nowMs();
  }

  void begin() {
    auto self = std::static_pointer_cast<PageLoad>(shared_from_this());
    {
      std::lock_guard<std::mutex> lock(registry().mutex);
      auto& loads = registry().loads[tag_];
      loads.erase(
          std::remove_if(loads.begin(), loads.end(),
                         [](const std::weak_ptr<PageLoad>& load) { return load.expired(); }),
          loads.end());
      loads.push_back(self);
    }
    canceller_->track(self);
    if (options_.cancelAfterMs == 0) {
      canceller_->cancel();  // queued before the start: the load never goes out
    } else if (options_.cancelAfterMs > 0) {
      cancelOnIo(self, options_.cancelAfterMs);
    }
    ioThread().post([self] { self->startOnIo(); });
  }

  void complete(int error) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ == State::kEnded)
        return;
      state_ = State::kEnded;
      result_.error = error;
      result_.timing.finish = nowMs();
    }
    auto self = std::static_pointer_cast<PageLoad>(shared_from_this());
    ioThread().post([self] { self->afterEnd(); });
  }

  void recordNetworkResponse(const flume::FLHttpResponse& response) {
    HeaderList headers = response.getHeadFields();
    std::string mime, charset;
    parseContentType(response.getHeadField("Content-Type"), &mime, &charset);
    recordResponse(static_cast<int>(response.getStatusCode()), response.getStatusText(),
                   std::move(headers), mime, charset);
  }

  void recordNetworkData(const char* data, size_t size) { recordData(data, size); }

 private:
  void startOnIo() {
    bool alive = false;
    ArkWeb_SchemeHandler* handler = nullptr;
    {
      std::lock_guard<std::mutex> lock(registry().mutex);
      alive = registry().components[tag_];
      std::string scheme = options_.url.substr(0, options_.url.find(':'));
      for (char& c : scheme)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      auto& byScheme = registry().handlers[tag_];
      auto it = byScheme.find(scheme);
      if (it != byScheme.end())
        handler = it->second;
    }
    if (!alive) {
      complete(ARKWEB_ERR_ABORTED);
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ == State::kEnded)
        return;  // cancelled before it started
    }
    if (options_.mainFrame && result_.redirects == 0)
      fire(registry().onPageBegin, tag_);

    auto* request = new ArkWeb_ResourceRequest_();
    request->id = g_nextRequestId.fetch_add(1);
    request->url = options_.url;
    request->method = options_.method;
    request->referrer = options_.referrer;
    request->frameUrl = options_.url;
    request->headers = options_.headers;
    request->mainFrame = options_.mainFrame;
    request->redirect = result_.redirects > 0;
    if (options_.body) {
      auto body = std::make_shared<BodySource>();
      body->bytes = *options_.body;
      body->chunked = options_.chunked;
      body->initError = options_.bodyInitError;
      body->readError = options_.bodyReadError;
      request->body = body;
    }
    auto* resourceHandler = new ArkWeb_ResourceHandler_{shared_from_this()};

    ArkWeb_OnRequestStart onStart = handler ? handler->onStart.load() : nullptr;
    bool intercept = false;
    if (onStart) {
      schemeHandler_ = handler;
      request_ = request;
      intercepted_ = true;  // decided below; stop is only sent when it stays true
      onStart(handler, request, resourceHandler, &intercept);
    }
    if (intercept) {
      std::lock_guard<std::mutex> lock(mutex_);
      result_.intercepted = true;
      return;  // the app owns request and handler now
    }
    intercepted_ = false;
    // Declined: the engine keeps request and handler. Strings the handler
    // asked for are still the handler's to release.
    delete resourceHandler;
    delete request;
    request_ = nullptr;
    startNetwork();
  }

  void startNetwork() {
    if (options_.offline) {
      complete(ARKWEB_ERR_INTERNET_DISCONNECTED);
      return;
    }
    networkRequest_ = flume::FLHttpRequest::create(options_.url);
    networkRequest_->setMethod(options_.method);
    for (const auto& [name, value] : options_.headers)
      networkRequest_->addHeadField(name, value);
    if (!options_.referrer.empty())
      networkRequest_->setHeadField("Referer", options_.referrer);
    if (options_.body) {
      auto stream = flume::FLDataStream::create();
      if (!options_.chunked) {
        networkRequest_->setHeadField("Content-Length", std::to_string(options_.body->size()));
      }
      stream->write(options_.body->data(), options_.body->size(), true);
      networkRequest_->setBodyStream(stream);
    }
    auto self = std::static_pointer_cast<PageLoad>(shared_from_this());
    flume::FLHttpSession::getSession()->send(networkRequest_, new NetworkListener(self));
  }

 public:
  // Stops the load as a page that navigates away (or goes away) does.
  void cancel() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ == State::kEnded)
        return;
    }
    if (networkRequest_) {
      flume::FLHttpSession::getSession()->cancel(networkRequest_);
    } else {
      complete(ARKWEB_ERR_ABORTED);
    }
  }

 private:
  void afterEnd() {
    if (intercepted_) {
      ArkWeb_OnRequestStop onStop = schemeHandler_->onStop.load();
      if (onStop)
        onStop(schemeHandler_, request_);
      request_ = nullptr;  // the app destroys it from its stop callback on
    }
    if (options_.mainFrame)
      fire(registry().onPageEnd, tag_);
    if (followRedirect())
      return;
    done_(std::move(result_));
    std::lock_guard<std::mutex> lock(activity().mutex);
    if (--activity().active == 0)
      activity().idle.notify_all();
  }

  bool followRedirect() {
    int status = result_.status;
    bool redirect =
        status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    if (!options_.followRedirects || result_.error != 0 || !redirect)
      return false;
    std::string location;
    for (const auto& [name, value] : result_.headers) {
      if (strcasecmp(name.c_str(), "Location") == 0)
        location = value;
    }
    if (location.empty() || result_.redirects >= kMaxRedirects)
      return false;
    LoadOptions next = options_;
    next.url = resolveLocation(options_.url, location);
    next.cancelAfterMs = -1;
    if (status == 303 || ((status == 301 || status == 302) && options_.method == "POST")) {
      next.method = "GET";
      next.body.reset();
    }
    auto load = std::make_shared<PageLoad>(tag_, std::move(next), std::move(done_), canceller_,
                                           result_.redirects + 1);
    load->begin();
    return true;
  }

  const std::string tag_;
  std::function<void(LoadResult)> done_;
  const std::shared_ptr<LoadCanceller> canceller_;
  // Written on the io thread before the handler may answer, read on it after.
  ArkWeb_SchemeHandler* schemeHandler_ = nullptr;
  ArkWeb_ResourceRequest* request_ = nullptr;
  bool intercepted_ = false;
  std::shared_ptr<flume::FLHttpRequest> networkRequest_;
};

void NetworkListener::onFLHttpResponse(const flume::FLHttpRequest&,
                                       const std::shared_ptr<flume::FLHttpResponse>& response) {
  load_->recordNetworkResponse(*response);
}

void NetworkListener::onFLHttpReceiveData(const flume::FLHttpRequest&,
                                          const std::shared_ptr<flume::FLData>& data) {
  load_->recordNetworkData(data->data(), data->size());
}

void NetworkListener::onFLHttpError(const flume::FLHttpRequest& request,
                                    const std::shared_ptr<flume::FLError>& error) {
  OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kEngineLogTag,
               "load of %{public}s failed: %{public}s (%{public}d)", request.url().c_str(),
               error->getMessage().c_str(), error->getCode());
  load_->complete(netErrorFromCurl(error->getCode()));
  delete this;
}

void NetworkListener::onFLHttpFinish(const flume::FLHttpRequest&) {
  load_->complete(0);
  delete this;
}

void cancelOnIo(std::weak_ptr<PageLoad> weak, long delayMs) {
  ioThread().postDelayed(
      [weak] {
        if (auto load = weak.lock())
          load->cancel();
      },
      delayMs);
}

class WebComponentImpl : public WebComponent {
 public:
  explicit WebComponentImpl(std::string tag) : tag_(std::move(tag)) {}
  const std::string& tag() const override { return tag_; }

  std::shared_ptr<LoadHandle> load(LoadOptions options,
                                   std::function<void(LoadResult)> done) override {
    {
      std::lock_guard<std::mutex> lock(activity().mutex);
      ++activity().active;
    }
    auto canceller = std::make_shared<LoadCanceller>();
    auto load = std::make_shared<PageLoad>(tag_, std::move(options), std::move(done), canceller, 0);
    load->begin();
    return canceller;
  }

  void destroy() override {
    fire(registry().onDestroy, tag_);
    std::vector<std::weak_ptr<PageLoad>> loads;
    {
      std::lock_guard<std::mutex> lock(registry().mutex);
      Registry& reg = registry();
      reg.components[tag_] = false;
      reg.handlers.erase(tag_);
      for (auto* table : {&reg.onDestroy, &reg.onPageBegin, &reg.onPageEnd, &reg.onAttached}) {
        table->erase(tag_);
      }
      loads.swap(reg.loads[tag_]);
      reg.loads.erase(tag_);
    }
    // A component that goes away stops what it was loading.
    for (const auto& weak : loads)
      cancelOnIo(weak);
  }

 private:
  std::string tag_;
};

ArkWeb_ComponentAPI& componentRecord();

// A member beyond the record's size does not exist for the caller: a module
// that reaches it anyway would crash on an engine whose record is shorter.
bool recordHolds(size_t offset, size_t size, const char* member) {
  size_t recordSize = componentRecord().size;
  if (offset + size <= recordSize)
    return true;
  reportRuleViolation(std::string("ArkWeb_ComponentAPI::") + member +
                      " called, but the record's size (" + std::to_string(recordSize) +
                      ") does not hold it");
  return false;
}

#define RECORD_HOLDS(member) \
  recordHolds(offsetof(ArkWeb_ComponentAPI, member), sizeof(ArkWeb_ComponentAPI::member), #member)

void registerNotice(std::map<std::string, std::vector<Notice>> Registry::*table,
                    const char* webTag,
                    ArkWeb_OnComponentCallback callback,
                    void* userData) {
  if (!webTag || !callback)
    return;
  std::lock_guard<std::mutex> lock(registry().mutex);
  (registry().*table)[webTag].push_back({callback, userData});
}

void onControllerAttached(const char* tag, ArkWeb_OnComponentCallback cb, void* data) {
  if (RECORD_HOLDS(onControllerAttached))
    registerNotice(&Registry::onAttached, tag, cb, data);
}
void onPageBegin(const char* tag, ArkWeb_OnComponentCallback cb, void* data) {
  if (RECORD_HOLDS(onPageBegin))
    registerNotice(&Registry::onPageBegin, tag, cb, data);
}
void onPageEnd(const char* tag, ArkWeb_OnComponentCallback cb, void* data) {
  if (RECORD_HOLDS(onPageEnd))
    registerNotice(&Registry::onPageEnd, tag, cb, data);
}
void onDestroy(const char* tag, ArkWeb_OnComponentCallback cb, void* data) {
  if (RECORD_HOLDS(onDestroy))
    registerNotice(&Registry::onDestroy, tag, cb, data);
}

#undef RECORD_HOLDS

// The engine's one component API record: the same pointer on every call.
ArkWeb_ComponentAPI& componentRecord() {
  static ArkWeb_ComponentAPI record = {sizeof(ArkWeb_ComponentAPI), onControllerAttached,
                                       onPageBegin, onPageEnd, onDestroy};
  return record;
}

}  // namespace

// ---- Load: the resource handler's calls ----

void Load::recordResponse(int status,
                          std::string statusText,
                          HeaderList headers,
                          std::string mimeType,
                          std::string charset) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kStarted)
    return;
  state_ = State::kResponded;
  result_.status = status;
  result_.statusText = std::move(statusText);
  result_.headers = std::move(headers);
  result_.mimeType = std::move(mimeType);
  result_.charset = std::move(charset);
  result_.timing.response = nowMs();
  std::string location, length;
  for (const auto& [name, value] : result_.headers) {
    if (strcasecmp(name.c_str(), "Location") == 0)
      location = value;
    else if (strcasecmp(name.c_str(), "Content-Length") == 0)
      length = value;
  }
  if (options_.keepBody && !length.empty() && options_.method != "HEAD") {
    // Grown once rather than by doubling, but never on the server's word
    // alone beyond 64 MiB.
    unsigned long long size = std::strtoull(length.c_str(), nullptr, 10);
    result_.body.reserve(static_cast<size_t>(std::min(size, 64ull << 20)));
  }
  // The same test followRedirect() makes, as far as it is known now.
  bool followed =
      options_.followRedirects && !location.empty() && result_.redirects < kMaxRedirects &&
      (status == 301 || status == 302 || status == 303 || status == 307 || status == 308);
  if (options_.onResponse && !followed)
    options_.onResponse(status, result_.statusText, result_.headers);
}

void Load::recordData(const char* data, size_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kResponded)
    return;
  recordDataLocked(data, size);
}

void Load::recordDataLocked(const char* data, size_t size) {
  // The clock is read only where a time is taken: most pieces just count.
  const bool timed = result_.timing.firstByte < 0 || options_.onData;
  const double now = timed ? nowMs() : 0;
  if (result_.timing.firstByte < 0)
    result_.timing.firstByte = now;
  result_.bodySize += size;
  if (options_.keepBody)
    result_.body.append(data, size);
  if (options_.onData)
    options_.onData(data, size, now);
}

int32_t Load::didReceiveResponse(const ArkWeb_Response* response) {
  ArkWeb_NetError error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kStarted) {
      OH_LOG_Print(
          LOG_APP, LOG_WARN, 0, kEngineLogTag,
          "DidReceiveResponse ignored: %{public}s (%{public}s)",
          state_ == State::kEnded ? "the request has ended" : "a response was already sent",
          options_.url.c_str());
      return ARKWEB_INVALID_PARAM;
    }
  }
  auto* mutableResponse = const_cast<ArkWeb_Response*>(response);
  std::lock_guard<std::mutex> responseLock(mutableResponse->mutex);
  error = response->error;
  if (error != ARKWEB_NET_OK) {
    // A response carrying an error is the load's failure, not a response:
    // the page sees no status or fields, and the error once the handler
    // finishes.
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::kResponded;
    responseError_ = error;
    return ARKWEB_SUCCESS;
  }
  recordResponse(response->status, response->statusText, response->headers, response->mimeType,
                 response->charset);
  return ARKWEB_SUCCESS;
}

int32_t Load::didReceiveData(const uint8_t* buffer, int64_t length) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kResponded) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "DidReceiveData ignored: %{public}s (%{public}s)",
                 state_ == State::kEnded ? "the request has ended" : "no response was sent",
                 options_.url.c_str());
    return ARKWEB_INVALID_PARAM;
  }
  recordDataLocked(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
  return ARKWEB_SUCCESS;
}

int32_t Load::didFinish() {
  State state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state = state_;
  }
  if (state == State::kEnded) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "DidFinish ignored: the request has ended (%{public}s)", options_.url.c_str());
    return ARKWEB_INVALID_PARAM;
  }
  if (state == State::kStarted) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "DidFinish before any response: failing the load");
    complete(ARKWEB_ERR_EMPTY_RESPONSE);
    return ARKWEB_SUCCESS;
  }
  int error = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    error = responseError_;
  }
  complete(error);
  return ARKWEB_SUCCESS;
}

int32_t Load::didFailWithError(ArkWeb_NetError error, bool completeIfNoResponse) {
  State state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state = state_;
  }
  if (state == State::kEnded) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "DidFailWithError ignored: the request has ended");
    return ARKWEB_INVALID_PARAM;
  }
  if (state == State::kStarted && !completeIfNoResponse) {
    // A device would leave the page waiting; the host ends the load instead.
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kEngineLogTag,
                 "DidFailWithError before any response: a device would never complete this load");
  }
  complete(state == State::kStarted && completeIfNoResponse ? ARKWEB_ERR_CONNECTION_FAILED : error);
  return ARKWEB_SUCCESS;
}

// ---- Engine ----

TaskRunner& ioThread() {
  static TaskRunner* runner = new TaskRunner("arkweb-io");  // serves until exit
  return *runner;
}

TaskRunner& workerThread() {
  static TaskRunner* runner = new TaskRunner("arkweb-worker");
  return *runner;
}

double nowMs() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

std::shared_ptr<WebComponent> WebComponent::create(const std::string& tag) {
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().components[tag] = true;
    registry().handlers[tag].clear();
  }
  fire(registry().onAttached, tag);
  return std::make_shared<WebComponentImpl>(tag);
}

LoadResult WebComponent::loadAndWait(LoadOptions options) {
  auto promise = std::make_shared<std::promise<LoadResult>>();
  auto future = promise->get_future();
  load(std::move(options), [promise](LoadResult result) { promise->set_value(std::move(result)); });
  return future.get();
}

void waitIdle() {
  {
    std::unique_lock<std::mutex> lock(activity().mutex);
    activity().idle.wait(lock, [] { return activity().active == 0; });
  }
  ioThread().waitIdle();
  workerThread().waitIdle();
  // A read copied on the worker answers on the IO thread.
  ioThread().waitIdle();
  // Background writes (stores, first chunks) the loads left behind.
  tern::waitAllExecutorsIdle();
}

void setComponentApiSize(size_t size) {
  componentRecord().size = size ? size : sizeof(ArkWeb_ComponentAPI);
}

}  // namespace arkweb_host

extern "C" {

bool OH_ArkWeb_SetSchemeHandler(const char* scheme,
                                const char* webTag,
                                ArkWeb_SchemeHandler* schemeHandler) {
  using arkweb_host::registry;
  if (!scheme || !webTag || !schemeHandler)
    return false;
  std::lock_guard<std::mutex> lock(registry().mutex);
  auto alive = registry().components.find(webTag);
  if (alive == registry().components.end() || !alive->second) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, arkweb_host::kEngineLogTag,
                 "OH_ArkWeb_SetSchemeHandler: no web component %{public}s", webTag);
    return false;
  }
  std::string lower(scheme);
  for (char& c : lower)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  registry().handlers[webTag][lower] = schemeHandler;
  return true;
}

int32_t OH_ArkWeb_ClearSchemeHandlers(const char* webTag) {
  if (!webTag)
    return ARKWEB_INVALID_PARAM;
  std::lock_guard<std::mutex> lock(arkweb_host::registry().mutex);
  arkweb_host::registry().handlers.erase(webTag);
  return ARKWEB_SUCCESS;
}

bool OH_ArkWebServiceWorker_SetSchemeHandler(const char* scheme,
                                             ArkWeb_SchemeHandler* schemeHandler) {
  // The host engine runs no service workers; the handler is accepted and unused.
  return scheme && schemeHandler;
}

int32_t OH_ArkWebServiceWorker_ClearSchemeHandlers() {
  return ARKWEB_SUCCESS;
}

ArkWeb_AnyNativeAPI* OH_ArkWeb_GetNativeAPI(ArkWeb_NativeAPIVariantKind type) {
  if (type == ARKWEB_NATIVE_COMPONENT)
    return reinterpret_cast<ArkWeb_AnyNativeAPI*>(&arkweb_host::componentRecord());
  return nullptr;
}

}  // extern "C"
