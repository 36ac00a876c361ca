// The one script-runtime piece of the prefetch registry: reading a cookie
// through the platform's "@ohos.web.webview" module.
#include "napi/napi_helper.h"
#include "prefetch/prefetch_network.h"

namespace velora {

std::string PrefetchNetwork::getCookieFromNapi(napi_env env, const std::string& url) {
  napi_value webview = nullptr;
  napi_load_module(env, "@ohos.web.webview", &webview);
  napi_value manager = NapiHelper::getNamedProperty(env, webview, "WebCookieManager");
  napi_value fetch = NapiHelper::getNamedProperty(env, manager, "fetchCookieSync");
  napi_value argument = NapiHelper::createStringValue(env, url);
  napi_value cookie = nullptr;
  napi_call_function(env, manager, fetch, 1, &argument, &cookie);
  return NapiHelper::getString(env, cookie);
}

}  // namespace velora
