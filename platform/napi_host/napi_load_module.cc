// napi_load_module on Node: platform modules ("@ohos.web.webview", ...) come
// from a registry object that the host fills (arkweb_host.node's
// registerPlatformModule), kept on the global object under
// Symbol.for("velora.platformModules") so every addon of the process sees it.
#include "napi/native_api.h"

namespace {

napi_status registryObject(napi_env env, bool create, napi_value* registry) {
  napi_value global, symbolCtor, symbolFor, name, key;
  napi_status status = napi_get_global(env, &global);
  if (status != napi_ok)
    return status;
  napi_get_named_property(env, global, "Symbol", &symbolCtor);
  napi_get_named_property(env, symbolCtor, "for", &symbolFor);
  napi_create_string_utf8(env, "velora.platformModules", NAPI_AUTO_LENGTH, &name);
  status = napi_call_function(env, symbolCtor, symbolFor, 1, &name, &key);
  if (status != napi_ok)
    return status;
  napi_get_property(env, global, key, registry);
  napi_valuetype type;
  napi_typeof(env, *registry, &type);
  if (type == napi_object)
    return napi_ok;
  if (!create)
    return napi_generic_failure;
  napi_create_object(env, registry);
  return napi_set_property(env, global, key, *registry);
}

}  // namespace

extern "C" napi_status napi_load_module(napi_env env, const char* path, napi_value* result) {
  if (!env || !path || !result)
    return napi_invalid_arg;
  napi_get_undefined(env, result);
  napi_value registry;
  if (registryObject(env, false, &registry) != napi_ok)
    return napi_generic_failure;
  napi_value module;
  napi_get_named_property(env, registry, path, &module);
  napi_valuetype type;
  napi_typeof(env, module, &type);
  if (type == napi_undefined)
    return napi_generic_failure;
  *result = module;
  return napi_ok;
}

// Host side: makes `value` what napi_load_module(name) returns.
napi_status velora_register_platform_module(napi_env env, const char* name, napi_value value) {
  napi_value registry;
  napi_status status = registryObject(env, true, &registry);
  if (status != napi_ok)
    return status;
  return napi_set_named_property(env, registry, name, value);
}
