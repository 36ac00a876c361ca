// Host TideLogger: entries go to $VELORA_LOG (a file, or "-" for stderr) and
// to live LogCaptures; without $VELORA_LOG only error entries reach stderr.
#include "tide_logger/log.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "common/host_env.h"
#include "tern/time_utils.h"
#include "tide_logger/log_capture.h"

namespace tide {
namespace {

struct Outputs {
  host::LineSink file{host::envOr("VELORA_LOG", "")};
  host::LineSink errors{"-"};
  std::mutex mutex;
  std::vector<LogCapture*> captures;  // guarded by mutex
  std::atomic<int> captureCount{0};   // captures.size(), read without the lock
};

Outputs& outputs() {
  static Outputs* instance = new Outputs();  // outlives every static that logs at exit
  return *instance;
}

// Whether an entry of `level` reaches any output at all.
bool anyOutputTakes(int level) {
  Outputs& out = outputs();
  return out.file.enabled() || level <= kError || out.captureCount.load() > 0;
}

std::string serialise(const nlohmann::ordered_json& entry) {
  // Replace invalid UTF-8 rather than throw: a log line must never fail.
  return entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

// An entry no output takes costs the check and nothing else.
LogBuilder::LogBuilder(int level, std::string_view tag)
    : level_(level), wanted_(anyOutputTakes(level)) {
  if (wanted_) {
    tag_ = tag;
    ts_ = tern::currentTimeMillis();
  }
}

LogBuilder& LogBuilder::event(std::string_view name, std::string_view id) {
  if (wanted_) {
    event_ = name;
    id_ = id;
  }
  return *this;
}

LogBuilder& LogBuilder::parentId(std::string_view id) {
  if (wanted_) {
    parentId_ = id;
    hasParent_ = true;
  }
  return *this;
}

LogBuilder& LogBuilder::timestamp(int64_t ms) {
  ts_ = ms;
  return *this;
}

LogBuilder& LogBuilder::error(std::string_view message) {
  if (wanted_) {
    error_ = message;
    hasError_ = true;
  }
  return *this;
}

LogBuilder& LogBuilder::key(std::string_view name) {
  if (wanted_)
    pendingKey_ = name;
  return *this;
}

void LogBuilder::done() {
  if (done_ || !wanted_) {
    return;
  }
  done_ = true;
  nlohmann::ordered_json entry;
  entry["ts"] = ts_;
  entry["level"] = level_;
  entry["tag"] = tag_;
  entry["event"] = event_;
  entry["id"] = id_;
  if (hasParent_)
    entry["parentId"] = parentId_;
  entry["fields"] = fields_.is_null() ? nlohmann::ordered_json::object() : std::move(fields_);
  if (hasError_)
    entry["error"] = error_;

  Outputs& out = outputs();
  {
    std::lock_guard<std::mutex> lock(out.mutex);
    for (LogCapture* capture : out.captures)
      capture->add(entry);
  }
  if (out.file.enabled()) {
    out.file.writeLine(serialise(entry));
  } else if (level_ <= kError) {
    out.errors.writeLine(serialise(entry));
  }
}

LogCapture::LogCapture() {
  Outputs& out = outputs();
  std::lock_guard<std::mutex> lock(out.mutex);
  out.captures.push_back(this);
  out.captureCount = static_cast<int>(out.captures.size());
}

LogCapture::~LogCapture() {
  Outputs& out = outputs();
  std::lock_guard<std::mutex> lock(out.mutex);
  out.captures.erase(std::remove(out.captures.begin(), out.captures.end(), this),
                     out.captures.end());
  out.captureCount = static_cast<int>(out.captures.size());
}

void LogCapture::add(const nlohmann::ordered_json& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(entry);
}

std::vector<nlohmann::ordered_json> LogCapture::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<nlohmann::ordered_json> LogCapture::find(const std::string& event,
                                                     const std::string& tag) const {
  std::vector<nlohmann::ordered_json> found;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : entries_) {
    if (entry["event"] == event && (tag.empty() || entry["tag"] == tag)) {
      found.push_back(entry);
    }
  }
  return found;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

}  // namespace tide
