// Host analytics: one JSON line per point in $VELORA_STATS.
#include "analytics/alarm_commit.h"
#include "analytics/host_config.h"

#include <atomic>

#include <nlohmann/json.hpp>

#include "common/host_env.h"
#include "tern/time_utils.h"

namespace {

// The sink in use; replaced sinks are kept (never destroyed), as a commit on
// another thread may still be writing to one.
std::atomic<host::LineSink*>& statsSink() {
  static std::atomic<host::LineSink*> sink{new host::LineSink(host::envOr("VELORA_STATS", ""))};
  return sink;
}

}  // namespace

void alarmUseStatsFile(const std::string& path) {
  statsSink().store(new host::LineSink(path));
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
