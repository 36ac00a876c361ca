#include "prefetch/prefetch_helper.h"

#include <map>
#include <vector>

#include "hilog/log.h"
#include "log_tags.h"
#include "napi/napi_helper.h"
#include "prefetch/ark_ts_prefetch_request_callback.h"

namespace velora {

std::pair<std::shared_ptr<PrefetchRequest>, std::shared_ptr<NetRequestCallBack>>
PrefetchHelper::parsePrefetchRequestParams(napi_env env, napi_callback_info info) {
  size_t argc = 0;
  napi_get_cb_info(env, info, &argc, nullptr, nullptr, nullptr);
  // Both slots are read whatever the count: a missing one is undefined.
  std::vector<napi_value> argv(argc < 2 ? 2 : argc, nullptr);
  napi_get_cb_info(env, info, &argc, argv.data(), nullptr, nullptr);
  for (napi_value& value : argv) {
    if (!value)
      napi_get_undefined(env, &value);
  }
  napi_value params = argv[0];
  std::string url = NapiHelper::getStringFromObj(env, params, "url");
  std::string method = NapiHelper::getStringFromObj(env, params, "method");

  // A later element with the same key replaces an earlier one. The array is
  // walked by its elements (a sparse one by the few it has), at most
  // kMaxHeaders of them.
  std::map<std::string, std::string> headers;
  napi_value list = NapiHelper::getNamedProperty(env, params, "headers");
  napi_value indices = nullptr;
  uint32_t count = 0;
  bool isArray = false;
  if (napi_is_array(env, list, &isArray) == napi_ok && isArray &&
      napi_get_property_names(env, list, &indices) == napi_ok) {
    napi_get_array_length(env, indices, &count);
  }
  if (count > kMaxHeaders) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, log_tags::kNapiHelper,
                 "prefetch: %{public}u headers, only the first %{public}u are sent", count,
                 kMaxHeaders);
    count = kMaxHeaders;
  }
  for (uint32_t i = 0; i < count; ++i) {
    napi_value index = nullptr;
    napi_value element = nullptr;
    napi_get_element(env, indices, i, &index);
    napi_get_property(env, list, index, &element);
    std::string value = NapiHelper::getStringFromObj(env, element, "value");
    headers[NapiHelper::getStringFromObj(env, element, "key")] = value;
  }
  auto request = std::make_shared<PrefetchRequest>(url);
  request->setMethod(method);
  for (const auto& [key, value] : headers)
    request->setHeader(key, value);

  napi_valuetype type = napi_undefined;
  napi_typeof(env, argv[1], &type);
  if (type == napi_undefined || type == napi_null)
    return {request, nullptr};
  std::shared_ptr<NetRequestCallBack> callback = ArkTsPrefetchRequestCallBack::create(env, argv[1]);
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, nullptr, "parsePrefetchRequestParams");
  return {request, callback};
}

}  // namespace velora
