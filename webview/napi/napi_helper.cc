#include "napi/napi_helper.h"

#include <memory>

#include "hilog/log.h"
#include "log_tags.h"

namespace velora {

napi_value NapiHelper::getArgument(napi_env env, napi_callback_info info, size_t index) {
  size_t argc = 0;
  napi_get_cb_info(env, info, &argc, nullptr, nullptr, nullptr);
  if (index >= argc) {
    return nullptr;
  }
  std::unique_ptr<napi_value[]> argv(new napi_value[argc]);
  napi_get_cb_info(env, info, &argc, argv.get(), nullptr, nullptr);
  return argv[index];
}

std::string NapiHelper::getString(napi_env env, napi_value value) {
  size_t length = 0;
  if (napi_get_value_string_utf8(env, value, nullptr, 0, &length) != napi_ok || length == 0) {
    return std::string();
  }
  std::string buffer(length + 1, '\0');
  size_t copied = 0;
  napi_get_value_string_utf8(env, value, buffer.data(), buffer.size(), &copied);
  buffer.resize(copied);
  // Text ends at the first NUL, as a C string would.
  size_t nul = buffer.find('\0');
  if (nul != std::string::npos)
    buffer.resize(nul);
  return buffer;
}

std::string NapiHelper::getStringFromObj(napi_env env, napi_value obj, const std::string& name) {
  return getString(env, getNamedProperty(env, obj, name));
}

int32_t NapiHelper::getInt32(napi_env env, napi_value value) {
  int32_t result = 0;
  napi_get_value_int32(env, value, &result);
  return result;
}

int32_t NapiHelper::getInt64(napi_env env, napi_value value) {
  int64_t result = 0;
  napi_get_value_int64(env, value, &result);
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(result)));
}

double NapiHelper::getDouble(napi_env env, napi_value value) {
  double result = 0.0;
  napi_get_value_double(env, value, &result);
  return result;
}

bool NapiHelper::getBool(napi_env env, napi_value value) {
  bool result = false;
  napi_get_value_bool(env, value, &result);
  return result;
}

int32_t NapiHelper::getInt32FromObj(napi_env env, napi_value obj, const std::string& name) {
  return getInt32(env, getNamedProperty(env, obj, name));
}

double NapiHelper::getDoubleFromObj(napi_env env, napi_value obj, const std::string& name) {
  return getDouble(env, getNamedProperty(env, obj, name));
}

bool NapiHelper::getBoolFromObj(napi_env env, napi_value obj, const std::string& name) {
  return getBool(env, getNamedProperty(env, obj, name));
}

napi_value NapiHelper::getNamedProperty(napi_env env, napi_value obj, const std::string& name) {
  napi_value result = nullptr;
  napi_valuetype type = napi_undefined;
  // Node-API rejects a null object; a property of a non-object reads as undefined.
  if (obj && napi_typeof(env, obj, &type) == napi_ok &&
      (type == napi_object || type == napi_function)) {
    napi_get_named_property(env, obj, name.c_str(), &result);
  }
  if (!result) {
    napi_get_undefined(env, &result);
  }
  return result;
}

std::map<std::string, std::string> NapiHelper::getStringMapFromObj(napi_env env, napi_value obj) {
  std::map<std::string, std::string> map;
  napi_valuetype type = napi_undefined;
  if (!obj || napi_typeof(env, obj, &type) != napi_ok ||
      (type != napi_object && type != napi_function)) {
    return map;
  }
  napi_value names = nullptr;
  uint32_t count = 0;
  if (napi_get_property_names(env, obj, &names) != napi_ok ||
      napi_get_array_length(env, names, &count) != napi_ok) {
    return map;
  }
  for (uint32_t index = 0; index < count; ++index) {
    napi_value keyValue = nullptr;
    napi_get_element(env, names, index, &keyValue);
    std::string key = getString(env, keyValue);
    napi_value propertyValue = nullptr;
    napi_get_property(env, obj, keyValue, &propertyValue);
    std::string value = getString(env, propertyValue);
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, log_tags::kNapiHelper,
                 "getNapiStringMapFromObj, key:%{public}s, value:%{public}s", key.c_str(),
                 value.c_str());
    map[key] = value;
  }
  return map;
}

napi_value NapiHelper::getValueFromRef(napi_env env, napi_ref ref) {
  napi_value result = nullptr;
  napi_get_reference_value(env, ref, &result);
  return result;
}

napi_value NapiHelper::createStringValue(napi_env env, const std::string& text) {
  return createStringValue(env, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

napi_value NapiHelper::createStringValue(napi_env env, const unsigned char* data, size_t length) {
  napi_value result = nullptr;
  napi_create_string_utf8(env, reinterpret_cast<const char*>(data), length, &result);
  return result;
}

napi_value NapiHelper::createInt32Value(napi_env env, int value) {
  napi_value result = nullptr;
  napi_create_int32(env, value, &result);
  return result;
}

napi_value NapiHelper::createObj(napi_env env) {
  napi_value result = nullptr;
  napi_create_object(env, &result);
  return result;
}

napi_value NapiHelper::createArray(napi_env env) {
  napi_value result = nullptr;
  napi_create_array(env, &result);
  return result;
}

napi_value NapiHelper::createArrayWithLength(napi_env env, size_t length) {
  napi_value result = nullptr;
  napi_create_array_with_length(env, length, &result);
  return result;
}

}  // namespace velora
