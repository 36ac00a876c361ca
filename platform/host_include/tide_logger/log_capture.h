// Host-only: structured entries collected in process, for tests and tools.
#ifndef TIDE_LOGGER_LOG_CAPTURE_H
#define TIDE_LOGGER_LOG_CAPTURE_H

#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tide_logger/log.h"

namespace tide {

// Collects every entry emitted in this process while it is alive (for tests
// and tools). Thread-safe.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<nlohmann::ordered_json> entries() const;
  // Entries whose "event" is `event` (and whose "tag" is `tag`, when given).
  std::vector<nlohmann::ordered_json> find(const std::string& event,
                                           const std::string& tag = std::string()) const;
  void clear();

  void add(const nlohmann::ordered_json& entry);

 private:
  mutable std::mutex mutex_;
  std::vector<nlohmann::ordered_json> entries_;
};

}  // namespace tide

#endif  // TIDE_LOGGER_LOG_CAPTURE_H
