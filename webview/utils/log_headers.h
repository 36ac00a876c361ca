// Headers as they go into structured log entries.
#ifndef VELORA_WEBVIEW_UTILS_LOG_HEADERS_H
#define VELORA_WEBVIEW_UTILS_LOG_HEADERS_H

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "network/net_request.h"

namespace velora {

// Credentials (Cookie, Set-Cookie, Authorization, Proxy-Authorization, any
// case) are logged as "<redacted>" unless the app runs with its debug flag.
std::string headerValueForLog(const std::string& name, const std::string& value);

// {"name": [values...]}.
nlohmann::json headersForLog(const HeaderMultimap& headers);
// {"name": "value"}.
nlohmann::json headersForLog(const std::map<std::string, std::string>& headers);

}  // namespace velora

#endif  // VELORA_WEBVIEW_UTILS_LOG_HEADERS_H
