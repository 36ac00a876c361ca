#include "utils/log_headers.h"

#include <strings.h>

#include "napi/sdk_init_info.h"

namespace velora {
namespace {

bool isCredential(const std::string& name) {
  for (const char* sensitive : {"Cookie", "Set-Cookie", "Authorization", "Proxy-Authorization"}) {
    if (strcasecmp(name.c_str(), sensitive) == 0)
      return true;
  }
  return false;
}

}  // namespace

std::string headerValueForLog(const std::string& name, const std::string& value) {
  if (isCredential(name) && !SdkInitInfo::getInstance().isDebug())
    return "<redacted>";
  return value;
}

nlohmann::json headersForLog(const HeaderMultimap& headers) {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [name, values] : headers) {
    nlohmann::json& list = json[name] = nlohmann::json::array();
    for (const auto& value : values)
      list.push_back(headerValueForLog(name, value));
  }
  return json;
}

nlohmann::json headersForLog(const std::map<std::string, std::string>& headers) {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [name, value] : headers)
    json[name] = headerValueForLog(name, value);
  return json;
}

}  // namespace velora
