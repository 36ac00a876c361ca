#include "first_chunk/first_chunk_handler.h"

#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>

#include "analytics/alarm_commit.h"
#include "log_tags.h"
#include "network/ssr_chunked_cache_request_callback.h"
#include "tern/executor_service.h"
#include "tern/time_utils.h"
#include "tide_logger/log.h"
#include "user_agent/user_agent_helper.h"
#include "utils/log_headers.h"
#include "web_request/web_request_stats.h"

namespace velora {
namespace {

constexpr const char* kLogTag = log_tags::kFirstChunkHandler;

tide::LogBuilder entry(const char* event, const std::string& traceId) {
  auto builder = tide::Log::build(tide::kInfo, kLogTag);
  builder.event(event, traceId);
  return builder;
}

// Store writes leave the carrier's thread: a store another process holds
// locked would stall every transfer on it.
void inBackground(std::function<void()> task) {
  tern::ExecutorService::of("Velora", TERN_HERE).post(tern::Fiber(std::move(task)));
}

}  // namespace

void FirstChunkHandler::send(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                             const std::string& data) {
  listener_->onReceiveData(request, data);
}

void FirstChunkHandler::onSendRequest(std::shared_ptr<gantry_ssr::SsrRequest> request) {
  const std::string& url = request->getUrl();
  request->addHeader("Browser-User-Agent", UserAgentHelper::getInstance().getUserAgent());
  storage_ = std::make_shared<FirstChunkStorage>(url);
  cacheContext_ = storage_->read(url);
  fccExpired_ = cacheContext_ && cacheContext_->isExpired();
  if (fccExpired_) {
    inBackground([storage = storage_] { storage->remove(); });
  } else if (cacheContext_ && !cacheContext_->getHtml().empty()) {
    HeaderMultimap headers{
        {"Content-Type", {"text/html"}},
        {"x-first-chunk-cache", {"true"}},
        {"x-first-chunk-length", {std::to_string(cacheContext_->getHtmlLength())}},
    };
    listener_->onResponse(request, 200, headers);
    send(request, cacheContext_->getHtml());
    useFirstChunkCache_ = true;
  }
  responseContext_ = std::make_shared<FirstChunkContext>();
  responseContext_->setUrl(url);
  entry("request", traceId_)
      .key("url")
      .value(url)
      .key("useFirstChunkCache")
      .value(useFirstChunkCache_)
      .key("fccExpired")
      .value(fccExpired_)
      .key("fccExist")
      .value(cacheContext_ != nullptr)
      .done();
}

std::string FirstChunkHandler::getFirstHeaderValue(const std::list<std::string>& values) {
  return values.empty() ? std::string() : values.front();
}

void FirstChunkHandler::parseResponseHeaders(const std::shared_ptr<FirstChunkContext>& context,
                                             const HeaderMultimap& headers) {
  auto header = [&headers](const char* name, std::string* value) {
    auto it = headers.find(name);
    if (it == headers.end())
      return false;
    *value = getFirstHeaderValue(it->second);
    return true;
  };
  std::string value;
  if (header("fcc-enable", &value))
    context->setEnable(value == "true");
  if (header("fcc-url-query-rule", &value))
    context->setRule(value);
  if (header("fcc-version", &value))
    context->setVersion(value);
  if (header("fcc-expire-time", &value))
    context->setExpiredTime(static_cast<double>(std::strtoll(value.c_str(), nullptr, 10)));
  if (context->getExpiredTime() == 0)
    context->setExpiredTime(static_cast<double>(tern::currentTimeMillis()) + kDefaultLifetimeMs);
}

void FirstChunkHandler::onResponse(std::shared_ptr<gantry_ssr::SsrRequest> request,
                                   int statusCode,
                                   const HeaderMultimap& headers) {
  parseResponseHeaders(responseContext_, headers);
  const bool stale = useFirstChunkCache_ && responseContext_->isEnable() &&
                     responseContext_->getVersion() != cacheContext_->getVersion();
  needInvalidateCache_ = stale;
  auto response = entry("response", traceId_);
  response.key("code")
      .value(statusCode)
      .key("head")
      .value(response.wanted() ? headersForLog(headers) : nlohmann::json())
      .key("useFirstChunkCache")
      .value(useFirstChunkCache_)
      .key("needInvalidateCache")
      .value(stale)
      .key("responseContextVersion")
      .value(responseContext_->getVersion())
      .key("cacheContextVersion")
      .value(cacheContext_ ? cacheContext_->getVersion() : std::string())
      .done();
  // The real answer, for statistics, even when the engine saw the cached one.
  if (auto* chunked = dynamic_cast<SSRChunkedCacheRequestCallBack*>(listener_.get()))
    chunked->onNetResponse(statusCode, headers);

  int type = fccExpired_ ? 3 : 0;
  if (!useFirstChunkCache_) {
    listener_->onResponse(request, statusCode, headers);
  } else {
    // The engine already has the cached chunk's 200.
    type = 1;
    if (!responseContext_->isEnable()) {
      send(request, getInvalidateScriptData());
      inBackground([storage = storage_] { storage->remove(); });
      type = 2;
    } else if (stale) {
      type = 2;
    }
  }
  reportCacheStats(request->getUrl(), type);
}

void FirstChunkHandler::onReceiveData(std::shared_ptr<gantry_ssr::SsrRequest> request,
                                      const std::string& data) {
  if (data.empty())
    return;
  if (!cacheWritten_ && (responseContext_->isEnable() || needInvalidateCache_)) {
    // Only the last marker-length bytes of what came before can start a
    // marker that this piece completes.
    size_t from = buffer_.size() >= kMarkerLength ? buffer_.size() - (kMarkerLength - 1) : 0;
    buffer_.append(data);
    size_t marker = buffer_.size() < kMarkerLength ? std::string::npos
                                                   : buffer_.find(kMarker, from, kMarkerLength);
    if (marker != std::string::npos) {
      spliceAfterFirstChunk(request, data, marker + kMarkerLength);
    } else if (buffer_.size() > FirstChunkStorage::kMaxHtmlBytes) {
      // No marker where a first chunk could end: this page has none to
      // offer (an error page, a new template).
      giveUpOnMarker(request);
    }
    if (useFirstChunkCache_) {
      // Before the marker the served chunk holds these bytes; at the marker
      // or on giving up, what the engine lacks of this piece went out above.
      receivedBytes_ += static_cast<int64_t>(data.size());
      return;
    }
  }
  send(request, data);
  receivedBytes_ += static_cast<int64_t>(data.size());
}

void FirstChunkHandler::spliceAfterFirstChunk(
    const std::shared_ptr<gantry_ssr::SsrRequest>& request,
    const std::string& data,
    size_t chunkLength) {
  std::string chunk = buffer_.substr(0, chunkLength);
  buffer_.clear();
  buffer_.shrink_to_fit();
  // An entry about the two versions at the splice.
  auto versions = [&](const char* event) {
    auto builder = entry(event, traceId_);
    builder.key("url")
        .value(request->getUrl())
        .key("useFirstChunkCache")
        .value(useFirstChunkCache_)
        .key("serverVersion")
        .value(responseContext_->getVersion())
        .key("cacheVersion")
        .value(cacheContext_ ? cacheContext_->getVersion() : std::string());
    return builder;
  };
  if (needInvalidateCache_) {
    versions("invalidateCache").done();
    send(request, getInvalidateScriptData());
    send(request, chunk);
  }
  // Where the first chunk ends inside this piece.
  const int64_t received = receivedBytes_;
  const int64_t offset = static_cast<int64_t>(chunk.size()) - received;
  if (useFirstChunkCache_ && offset >= 0 && static_cast<int64_t>(data.size()) > offset) {
    send(request, data.substr(static_cast<size_t>(offset)));
    versions("dataAfterFcc")
        .key("fccByteIndex")
        .value(static_cast<long long>(offset))
        .key("offset")
        .value(static_cast<long long>(received))
        .key("firstChunkHtmlLength")
        .value(chunk.size())
        .done();
  } else {
    entry("passedFccIndex", traceId_)
        .key("url")
        .value(request->getUrl())
        .key("fccByteIndex")
        .value(static_cast<long long>(offset))
        .key("offset")
        .value(static_cast<long long>(received))
        .done();
  }
  cacheWritten_ = true;
  if (chunk.size() > FirstChunkStorage::kMaxHtmlBytes) {
    entry("chunkTooLarge", traceId_)
        .key("url")
        .value(request->getUrl())
        .key("length")
        .value(chunk.size())
        .done();
    return;
  }
  responseContext_->setHtml(std::move(chunk));
  inBackground([storage = storage_, context = responseContext_, url = request->getUrl(),
                traceId = traceId_] {
    bool written = storage->write(context);
    entry("writeCache", traceId).key("url").value(url).key("success").value(written).done();
  });
}

void FirstChunkHandler::giveUpOnMarker(const std::shared_ptr<gantry_ssr::SsrRequest>& request) {
  cacheWritten_ = true;  // from now on everything passes through
  entry("markerNotFound", traceId_)
      .key("url")
      .value(request->getUrl())
      .key("useFirstChunkCache")
      .value(useFirstChunkCache_)
      .key("buffered")
      .value(buffer_.size())
      .done();
  std::string live;
  live.swap(buffer_);
  if (useFirstChunkCache_) {
    // The engine has the stored chunk and none of the live bytes: undo the
    // chunk, then give it the live page from its first byte. A record that
    // no longer fits its page goes.
    send(request, getInvalidateScriptData());
    if (!live.empty())
      send(request, live);
    inBackground([storage = storage_] { storage->remove(); });
  }
}

void FirstChunkHandler::onError(std::shared_ptr<gantry_ssr::SsrRequest> request,
                                std::shared_ptr<gantry_ssr::SsrResponse> response) {
  entry("error", traceId_)
      .key("code")
      .value(response ? response->getCode() : 0)
      .key("msg")
      .value(response ? response->getMessage() : std::string())
      .key("useFirstChunkCache")
      .value(useFirstChunkCache_)
      .done();
  listener_->onError(std::move(request), std::move(response));
}

void FirstChunkHandler::onFinish(std::shared_ptr<gantry_ssr::SsrRequest> request) {
  entry("finish", traceId_).key("url").value(request->getUrl()).done();
  // A live page that ended without its marker: what was held back goes out
  // now, never a page cut short that looks complete.
  if (!cacheWritten_ && useFirstChunkCache_ &&
      (responseContext_->isEnable() || needInvalidateCache_))
    giveUpOnMarker(request);
  listener_->onFinish(std::move(request));
}

void FirstChunkHandler::reportCacheStats(const std::string& url, int type) {
  std::string text = encodeStats({{"type", std::to_string(type)}, {"url", url}});
  alarmCommitSuccess2("velora", "firstChunkCache", text.c_str());
}

const std::string& FirstChunkHandler::getInvalidateScriptData() {
  static const std::string script =
      "<script>document.getRootNode().activeElement.innerHTML=null;"
      "document.head.innerHTML=null</script>";
  return script;
}

}  // namespace velora
