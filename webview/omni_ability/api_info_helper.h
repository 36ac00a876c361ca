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
  // What all the calls of one page may take together; a call that would
  // start later, or is still running then, answers "TIMEOUT".
  static constexpr int kBudgetMs = 3000;

  // "api-info" is base64 of a JSON array of requests [["ability.api", params], ...].
  // Runs each call synchronously and answers the array with each request's
  // result appended, as compact JSON; "" when the URL asks for nothing or the
  // field is malformed (logged). Only calls on the remote allow-list run, and
  // never the SSR ability's own operations: the others answer "NOT_ALLOWED"
  // (logged). Blocks for at most about kBudgetMs: not for the engine's threads.
  static std::string getApiInfo(std::string url);
  // getApiInfo, form-encoded: the header value.
  static std::string getEncodedApiInfo(std::string url);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_OMNI_ABILITY_API_INFO_HELPER_H
