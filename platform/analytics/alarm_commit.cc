// Host analytics: one JSON line per point in $VELORA_STATS.
#include "analytics/alarm_commit.h"

#include <nlohmann/json.hpp>

#include "common/host_env.h"
#include "tern/time_utils.h"

namespace {

host::LineSink& statsSink() {
  static host::LineSink* sink = new host::LineSink(host::envOr("VELORA_STATS", ""));
  return *sink;
}

}  // namespace

void alarmCommitSuccess2(const char* module, const char* monitorPoint, const char* arg) {
  host::LineSink& sink = statsSink();
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
