// Analytics points of intercepted requests.
#include "web_request/web_request_stats.h"

#include "analytics/alarm_commit.h"
#include "web_request/web_request.h"

namespace velora {

std::string encodeStats(const std::map<std::string, std::string>& entries) {
  std::string text;
  for (const auto& [key, value] : entries)
    text += key + "*F*" + value + "#L#";
  return text;
}

void WebRequest::reportPrefetchStats(const std::string& url, int hit) {
  std::string text = encodeStats({{"url", url}, {"type", std::to_string(hit)}});
  alarmCommitSuccess2("velora", "prefetch", text.c_str());
}

void WebRequest::reportNetError(const std::string& url, int code, const std::string& message) {
  std::string text = encodeStats({{"url", url}, {"code", std::to_string(code)}, {"msg", message}});
  alarmCommitSuccess2("velora", "netError", text.c_str());
}

}  // namespace velora
