// velora_probe.node: reaches the module's script-side pieces that no script
// function exposes on its own, for the node:test suites.
//   getCookie(url)            PrefetchNetwork::getCookieFromNapi
//   readValues(obj, value)    NapiHelper reads: {map, int64, stringOfNumber}
//   argumentIsNull(index,...) NapiHelper::getArgument(index) == null
//   feedPrefetchCallbacks(callbacks)  a script receiver fed from a network-like
//                             thread: response, empty data, data, error, then a
//                             finish that comes too late
#include <thread>

#include "napi/napi_helper.h"
#include "prefetch/ark_ts_prefetch_request_callback.h"
#include "prefetch/prefetch_network.h"

namespace {

using velora::NapiHelper;

napi_value GetCookie(napi_env env, napi_callback_info info) {
  std::string url = NapiHelper::getString(env, NapiHelper::getArgument(env, info, 0));
  return NapiHelper::createStringValue(env, velora::PrefetchNetwork::getCookieFromNapi(env, url));
}

napi_value ReadValues(napi_env env, napi_callback_info info) {
  napi_value object = NapiHelper::getArgument(env, info, 0);
  napi_value value = NapiHelper::getArgument(env, info, 1);
  napi_value result = NapiHelper::createObj(env);
  napi_value map = NapiHelper::createObj(env);
  for (const auto& [key, text] : NapiHelper::getStringMapFromObj(env, object)) {
    napi_set_named_property(env, map, key.c_str(), NapiHelper::createStringValue(env, text));
  }
  napi_set_named_property(env, result, "map", map);
  napi_set_named_property(env, result, "int64",
                          NapiHelper::createInt32Value(env, NapiHelper::getInt64(env, value)));
  napi_set_named_property(
      env, result, "stringOfNumber",
      NapiHelper::createStringValue(env, NapiHelper::getStringFromObj(env, object, "n")));
  return result;
}

napi_value ArgumentIsNull(napi_env env, napi_callback_info info) {
  size_t index =
      static_cast<size_t>(NapiHelper::getInt32(env, NapiHelper::getArgument(env, info, 0)));
  napi_value answer;
  napi_get_boolean(env, NapiHelper::getArgument(env, info, index) == nullptr, &answer);
  return answer;
}

napi_value FeedPrefetchCallbacks(napi_env env, napi_callback_info info) {
  std::shared_ptr<velora::NetRequestCallBack> receiver =
      velora::ArkTsPrefetchRequestCallBack::create(env, NapiHelper::getArgument(env, info, 0));
  std::thread([receiver] {
    receiver->onResponse(200, {{"a", {"1", "2"}}, {"b", {"3"}}});
    receiver->onData(nullptr, 0);
    receiver->onData(reinterpret_cast<const unsigned char*>("xyz"), 3);
    receiver->onError(7, ARKWEB_ERR_CONNECTION_REFUSED, "refused");
    receiver->onFinish();
  }).detach();
  return nullptr;
}

napi_value Init(napi_env env, napi_value exports) {
  napi_property_descriptor properties[] = {
      {"getCookie", nullptr, GetCookie, nullptr, nullptr, nullptr, napi_default, nullptr},
      {"readValues", nullptr, ReadValues, nullptr, nullptr, nullptr, napi_default, nullptr},
      {"argumentIsNull", nullptr, ArgumentIsNull, nullptr, nullptr, nullptr, napi_default, nullptr},
      {"feedPrefetchCallbacks", nullptr, FeedPrefetchCallbacks, nullptr, nullptr, nullptr,
       napi_default, nullptr},
  };
  napi_define_properties(env, exports, 4, properties);
  return exports;
}

}  // namespace

NAPI_MODULE(velora_probe, Init)
