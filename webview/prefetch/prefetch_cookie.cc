// The one script-runtime piece of the prefetch registry: reading a cookie
// through the platform's "@ohos.web.webview" module.
#include "hilog/log.h"
#include "log_tags.h"
#include "napi/napi_helper.h"
#include "prefetch/prefetch_network.h"

namespace velora {
namespace {

// Logs what failed and answers no cookie. A failed call may leave a script
// exception behind, which must not surface in whatever script runs next.
std::string noCookie(napi_env env, const char* what, napi_status status) {
  bool pending = false;
  if (napi_is_exception_pending(env, &pending) == napi_ok && pending) {
    napi_value ignored = nullptr;
    napi_get_and_clear_last_exception(env, &ignored);
  }
  OH_LOG_Print(LOG_APP, LOG_ERROR, 0, log_tags::kPrefetchNetwork,
               "cookie lookup: %{public}s failed (napi status %{public}d); no cookie is sent", what,
               static_cast<int>(status));
  return std::string();
}

}  // namespace

std::string PrefetchNetwork::getCookieFromNapi(napi_env env, const std::string& url) {
  napi_value webview = nullptr;
  napi_status status = napi_load_module(env, "@ohos.web.webview", &webview);
  if (status != napi_ok || !webview)
    return noCookie(env, "loading @ohos.web.webview", status);
  napi_value manager = NapiHelper::getNamedProperty(env, webview, "WebCookieManager");
  napi_value fetch = NapiHelper::getNamedProperty(env, manager, "fetchCookieSync");
  napi_value argument = NapiHelper::createStringValue(env, url);
  napi_value cookie = nullptr;
  status = napi_call_function(env, manager, fetch, 1, &argument, &cookie);
  if (status != napi_ok)
    return noCookie(env, "WebCookieManager.fetchCookieSync", status);
  return NapiHelper::getString(env, cookie);
}

}  // namespace velora
