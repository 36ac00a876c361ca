// The text of an analytics point.
#ifndef VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_STATS_H
#define VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_STATS_H

#include <map>
#include <string>

namespace velora {

// key*F*value#L# per entry, in key order; nothing is escaped.
std::string encodeStats(const std::map<std::string, std::string>& entries);

}  // namespace velora

#endif  // VELORA_WEBVIEW_WEB_REQUEST_WEB_REQUEST_STATS_H
