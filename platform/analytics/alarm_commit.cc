// Host analytics: one JSON line per point in $VELORA_STATS.
#include "analytics/alarm_commit.h"
#include "analytics/host_config.h"

#include <atomic>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/host_env.h"
#include "tern/time_utils.h"

namespace {

// The sink in use. Replaced sinks are kept (never destroyed, and reachable),
// as a commit on another thread may still be writing to one.
std::atomic<host::LineSink*>& statsSink() {
  static std::atomic<host::LineSink*> sink{new host::LineSink(host::envOr("VELORA_STATS", ""))};
  return sink;
}

struct Retired {
  std::mutex mutex;
  std::vector<host::LineSink*> sinks;
};

Retired& retired() {
  static Retired* instance = new Retired;
  return *instance;
}

}  // namespace

void alarmUseStatsFile(const std::string& path) {
  host::LineSink* previous = statsSink().exchange(new host::LineSink(path));
  std::lock_guard<std::mutex> lock(retired().mutex);
  retired().sinks.push_back(previous);
}

void alarmCommitSuccess2(const char* module, const char* monitorPoint, const char* arg) {
  host::LineSink& sink = *statsSink().load();
  if (!sink.enabled()) {
    return;
  }
  nlohmann::ordered_json point;
  point["ts"] = tern::currentTimeMillis();
  point["module"] = module ? module : "";
  point["point"] = monitorPoint ? monitorPoint : "";
  point["text"] = arg ? arg : "";
  sink.writeLine(point.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}
