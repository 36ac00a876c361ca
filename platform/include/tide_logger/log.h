// TideLogger: structured log entries, one JSON object per line.
//
//   tide::Log::build(tide::kInfo, "Velora/web")
//       .event("setSchemeHandler", webTag)
//       .key("url").value(url)
//       .done();
//
// Line format: {"ts":ms,"level":n,"tag":"...","event":"...","id":"...",
// "parentId":"..." (when set),"fields":{...},"error":"..." (when set)}.
#ifndef TIDE_LOGGER_LOG_H
#define TIDE_LOGGER_LOG_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tide {

// Entry levels: lower is more severe.
enum Level : int {
  kError = 1,
  kWarn = 2,
  kInfo = 3,
  kDebug = 4,
};

class LogBuilder {
 public:
  LogBuilder(int level, std::string_view tag);
  LogBuilder(LogBuilder&&) = default;
  LogBuilder(const LogBuilder&) = delete;
  LogBuilder& operator=(const LogBuilder&) = delete;

  // Names the entry and the object it is about.
  LogBuilder& event(std::string_view name, std::string_view id = {});
  LogBuilder& parentId(std::string_view id);
  // Overrides the entry's time (ms since the epoch); default: when built.
  LogBuilder& timestamp(int64_t ms);
  LogBuilder& error(std::string_view message);

  // Members: key(name) then one value(...).
  LogBuilder& key(std::string_view name);
  LogBuilder& value(const std::string& v) { return put(v); }
  LogBuilder& value(const char* v) { return put(v ? v : ""); }
  LogBuilder& value(bool v) { return put(v); }
  LogBuilder& value(int v) { return put(v); }
  LogBuilder& value(long v) { return put(v); }
  LogBuilder& value(long long v) { return put(v); }
  LogBuilder& value(unsigned v) { return put(v); }
  LogBuilder& value(unsigned long v) { return put(v); }
  LogBuilder& value(unsigned long long v) { return put(v); }
  LogBuilder& value(float v) { return put(v); }
  LogBuilder& value(double v) { return put(v); }
  LogBuilder& value(const nlohmann::json& v) { return put(v); }

  // Emits the entry. Once; a builder dropped without done() emits nothing.
  void done();

  // False when no output takes the entry: members that cost something to
  // build need not be built.
  bool wanted() const { return wanted_; }

 private:
  template <typename T>
  LogBuilder& put(T&& v) {
    if (wanted_)
      fields_[pendingKey_] = std::forward<T>(v);
    return *this;
  }

  int level_;
  std::string tag_;
  std::string event_;
  std::string id_;
  std::string parentId_;
  std::string error_;
  int64_t ts_ = 0;
  bool hasParent_ = false;
  bool hasError_ = false;
  bool done_ = false;
  // False when no output would take this entry: it is then not assembled.
  bool wanted_;
  std::string pendingKey_;
  nlohmann::ordered_json fields_;  // null (nothing allocated) until a member is put
};

class Log {
 public:
  static LogBuilder build(int level, std::string_view tag) { return LogBuilder(level, tag); }
};

}  // namespace tide

#endif  // TIDE_LOGGER_LOG_H
