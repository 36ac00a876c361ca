// Local ability calls that a page URL asks for ("api-info"), answered to the
// SSR gateway in the "api-context" header.
#ifndef VELORA_WEBVIEW_OMNI_ABILITY_API_INFO_HELPER_H
#define VELORA_WEBVIEW_OMNI_ABILITY_API_INFO_HELPER_H

#include <string>

namespace velora {

// The ability-context user-data key that carries the page URL, for the
// abilities called on a page's behalf and for the SSR ability's operations.
inline constexpr char kPageUrlKey[] = "pageUrl";

class ApiInfoHelper {
 public:
  // "api-info" is base64 of a JSON array of requests [["ability.api", params], ...].
  // Runs each call synchronously and answers the array with each request's
  // result appended, as compact JSON; "" when the URL asks for nothing or the
  // field is malformed (logged).
  static std::string getApiInfo(std::string url);
  // getApiInfo, form-encoded: the header value.
  static std::string getEncodedApiInfo(std::string url);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_OMNI_ABILITY_API_INFO_HELPER_H
