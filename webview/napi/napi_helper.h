// The one place where script values are read and made. Reads never fail: a
// missing value or one of the wrong type reads as the type's zero value.
#ifndef VELORA_WEBVIEW_NAPI_NAPI_HELPER_H
#define VELORA_WEBVIEW_NAPI_NAPI_HELPER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "napi/native_api.h"

namespace velora {

class NapiHelper {
 public:
  // Argument `index` of the call, or null when there are fewer arguments.
  static napi_value getArgument(napi_env env, napi_callback_info info, size_t index);

  // UTF-8 text up to the first NUL; "" for a non-string.
  static std::string getString(napi_env env, napi_value value);
  static std::string getStringFromObj(napi_env env, napi_value obj, const std::string& name);
  static int32_t getInt32(napi_env env, napi_value value);
  // The low 32 bits of the value read as a 64-bit integer.
  static int32_t getInt64(napi_env env, napi_value value);
  static double getDouble(napi_env env, napi_value value);
  static bool getBool(napi_env env, napi_value value);
  static int32_t getInt32FromObj(napi_env env, napi_value obj, const std::string& name);
  static double getDoubleFromObj(napi_env env, napi_value obj, const std::string& name);
  static bool getBoolFromObj(napi_env env, napi_value obj, const std::string& name);
  static napi_value getNamedProperty(napi_env env, napi_value obj, const std::string& name);
  // Own enumerable properties, each value read with getString.
  static std::map<std::string, std::string> getStringMapFromObj(napi_env env, napi_value obj);
  static napi_value getValueFromRef(napi_env env, napi_ref ref);

  static napi_value createStringValue(napi_env env, const std::string& text);
  static napi_value createStringValue(napi_env env, const unsigned char* data, size_t length);
  static napi_value createInt32Value(napi_env env, int value);
  static napi_value createObj(napi_env env);
  static napi_value createArray(napi_env env);
  static napi_value createArrayWithLength(napi_env env, size_t length);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NAPI_NAPI_HELPER_H
