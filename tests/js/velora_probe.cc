// velora_probe.node: getCookie(url) runs PrefetchNetwork::getCookieFromNapi,
// which the module offers but never calls itself.
#include "napi/napi_helper.h"
#include "prefetch/prefetch_network.h"

namespace {

napi_value GetCookie(napi_env env, napi_callback_info info) {
  std::string url =
      velora::NapiHelper::getString(env, velora::NapiHelper::getArgument(env, info, 0));
  return velora::NapiHelper::createStringValue(
      env, velora::PrefetchNetwork::getCookieFromNapi(env, url));
}

napi_value Init(napi_env env, napi_value exports) {
  napi_property_descriptor property = {"getCookie", nullptr, GetCookie,    nullptr,
                                       nullptr,     nullptr, napi_default, nullptr};
  napi_define_properties(env, exports, 1, &property);
  return exports;
}

}  // namespace

NAPI_MODULE(velora_probe, Init)
