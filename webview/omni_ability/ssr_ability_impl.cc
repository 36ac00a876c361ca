#include "omni_ability/ssr_ability_impl.h"

#include <cctype>
#include <mutex>

#include "first_chunk/first_chunk_handler.h"
#include "first_chunk/first_chunk_storage.h"
#include "log_tags.h"
#include "network/ssr_chunked_cache_request_callback.h"
#include "omni_ability/api_info_helper.h"
#include "prefetch/prefetch_network.h"
#include "tern/executor_service.h"
#include "tern/time_utils.h"
#include "tern/uri.h"
#include "tide_logger/log.h"

namespace velora {
namespace {

constexpr const char* kLogTag = log_tags::kSsrAbility;

omni::ExecuteResult urlEmpty() {
  return omni::ExecuteResult::error("INVALID_PARAM", "url empty");
}

// Only web pages are preloaded: any other scheme (file, gopher, dict, ...)
// would let whoever wrote the URL read local files or reach raw ports.
bool isWebUrl(const std::string& url) {
  tern::URI uri = tern::URI::parseURL(url);
  std::string scheme = uri.getScheme();
  for (char& c : scheme)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return uri.isValid() && !uri.getHost().empty() && (scheme == "http" || scheme == "https");
}

// Receives a first-chunk preload and answers the operation. The prefetch is
// never consumed by a page, so it is removed when it ends; its id is known
// only once startPrefetch returns, which may be after the end. The status is
// the server's: when a stored chunk was served first, the engine-facing 200
// is not it.
class PreloadOutcome final : public NetRequestCallBack,
                             public SSRChunkedCacheRequestCallBack,
                             public std::enable_shared_from_this<PreloadOutcome> {
 public:
  PreloadOutcome(std::string url, omni::Ability::Callback callback)
      : url_(std::move(url)), callback_(std::move(callback)) {}

  void onResponse(int status, const HeaderMultimap&) override {
    if (!netStatus_)
      status_ = status;
  }
  void onNetResponse(int status, const HeaderMultimap&) override {
    netStatus_ = true;
    status_ = status;
  }
  void onData(const unsigned char*, unsigned long) override {}
  void onFinish() override {
    // The chunk is written on the "Velora" executor, posted when its marker
    // came: asked there, after it, the store has the answer.
    int status = status_;
    auto self = shared_from_this();
    tern::ExecutorService::of("Velora", TERN_HERE).post(tern::Fiber([self, status] {
      bool stored = FirstChunkStorage(self->url_).read(self->url_) != nullptr;
      self->end(omni::ExecuteResult::success({{"status", status}, {"stored", stored}}, status));
    }));
  }
  void onError(int code, ArkWeb_NetError, const std::string& message) override {
    end(omni::ExecuteResult::error(std::to_string(code), message, status_));
  }
  void started(const std::string& id) {
    bool ended;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      id_ = id;
      ended = ended_;
    }
    if (ended)
      PrefetchNetwork::removePrefetch(id);
  }

 private:
  void end(const omni::ExecuteResult& result) {
    std::string id;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ended_ = true;
      id = id_;
    }
    callback_(result);
    if (!id.empty())
      PrefetchNetwork::removePrefetch(id);
  }

  const std::string url_;
  const omni::Ability::Callback callback_;
  // Written and read on the carrier's thread (or the sending one, for a
  // stored chunk served before the call).
  int status_ = 0;
  bool netStatus_ = false;
  std::mutex mutex_;
  std::string id_;
  bool ended_ = false;
};

}  // namespace

void SSRAbility::prerender(std::shared_ptr<omni::AbilityContext>,
                           const omni::AbilityData&,
                           Callback callback) {
  callback(omni::ExecuteResult::success());
}

void SSRAbility::preload(std::shared_ptr<omni::AbilityContext>,
                         const omni::AbilityData&,
                         Callback callback) {
  callback(omni::ExecuteResult::success());
}

void SSRAbility::preloadFirstChunk(std::shared_ptr<omni::AbilityContext>,
                                   const omni_idl::SSRPreloadFirstChunkParams& params,
                                   Callback callback) {
  if (params.url.empty())
    return callback(urlEmpty());
  if (!isWebUrl(params.url)) {
    tide::Log::build(tide::kError, kLogTag)
        .event("preloadFirstChunk")
        .key("url")
        .value(params.url)
        .key("msg")
        .value("refused: not an http or https URL")
        .done();
    return callback(omni::ExecuteResult::error("INVALID_PARAM", "url is not http or https"));
  }
  tide::Log::build(tide::kInfo, kLogTag)
      .event("preloadFirstChunk")
      .key("url")
      .value(params.url)
      .key("forceUpdate")
      .value(params.forceUpdate)
      .done();
  if (!params.forceUpdate) {
    std::shared_ptr<FirstChunkContext> stored = FirstChunkStorage(params.url).read(params.url);
    if (stored && !stored->isExpired())
      return callback(omni::ExecuteResult::success({{"status", 0}, {"stored", true}}));
  }
  auto request = std::make_shared<PrefetchRequest>(params.url);
  request->setMethod(params.method);
  request->setJustFirstChunk(true);
  // The registry's listener holds the outcome until the prefetch is removed.
  auto outcome = std::make_shared<PreloadOutcome>(params.url, std::move(callback));
  outcome->started(PrefetchNetwork::startPrefetch(request, outcome));
}

void SSRAbility::setFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                                    const omni_idl::SSRSetFCCParams& params,
                                    Callback callback) {
  const std::string url = context ? context->getDataFromUserDataMap(kPageUrlKey) : std::string();
  if (url.empty())
    return callback(urlEmpty());
  auto entry = tide::Log::build(tide::kInfo, kLogTag);
  entry.event("setFirstChunkCache").key("url").value(url);
  if (params.expireTime)
    entry.key("expireTime").value(static_cast<long long>(*params.expireTime));
  entry.done();
  // The store is never read or written on the caller's thread.
  tern::ExecutorService::of("Velora", TERN_HERE)
      .post(tern::Fiber([url, params, callback = std::move(callback)] {
        FirstChunkStorage storage(url);
        std::shared_ptr<FirstChunkContext> record = storage.read(url);
        if (!record) {
          // A new record is one the caller vouches for: enabled, under the
          // page's own query rule.
          record = std::make_shared<FirstChunkContext>();
          record->setUrl(url);
          record->setEnable(true);
          record->setRule(UrlParser(url).getQuery("fcc_match_query"));
        }
        if (record->getExpiredTime() == 0) {
          record->setExpiredTime(static_cast<double>(tern::currentTimeMillis()) +
                                 FirstChunkHandler::kDefaultLifetimeMs);
        }
        if (params.expireTime)
          record->setExpiredTime(static_cast<double>(*params.expireTime));
        if (params.version)
          record->setVersion(*params.version);
        record->setHtml(params.html);
        if (storage.write(record))
          callback(omni::ExecuteResult::success());
        else
          callback(omni::ExecuteResult::error("WRITE_FAIL", "write fail"));
      }));
}

void SSRAbility::removeFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                                       Callback callback) {
  const std::string url = context ? context->getDataFromUserDataMap(kPageUrlKey) : std::string();
  if (url.empty())
    return callback(urlEmpty());
  FirstChunkStorage(url).remove();
  tide::Log::build(tide::kInfo, kLogTag)
      .event("removeFirstChunkCache")
      .key("url")
      .value(url)
      .done();
  callback(omni::ExecuteResult::success());
}

}  // namespace velora
