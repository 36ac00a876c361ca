// arkweb_host.node: the host web engine driven from JavaScript.
//
//   const host = require('./build/arkweb_host.node');
//   const web = host.createWebComponent('page1');
//   const res = await web.load({ url, method, headers, mainFrame, body, chunked,
//                                bodyInitError, bodyReadError, onResponse(status, headers) {},
//                                onData(chunk, atMs) {}, cancelAfterMs, keepBody, signal });
//   web.destroy();
//   host.takeRuleViolations();  // { count, first }: SDK rules broken since the last call
//   host.loadAbility(libraryPath, 'SSRAbility');           // true when found
//   const result = await host.callAbility('SSRAbility', 'setFirstChunkCache',
//                                         { pageUrl: url }, { html });
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "arkweb/body_blocks.h"
#include "arkweb_host/rules.h"
#include "arkweb_host/web_component.h"
#include "napi/native_api.h"
#include "omni/ability.h"
#include "omni/ability_registry.h"

napi_status velora_register_platform_module(napi_env env, const char* name, napi_value value);

namespace {

using arkweb_host::LoadHandle;
using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using arkweb_host::WebComponent;

#define NAPI_OK(call)             \
  do {                            \
    if ((call) != napi_ok)        \
      return throwLastError(env); \
  } while (0)

napi_value throwLastError(napi_env env) {
  const napi_extended_error_info* info = nullptr;
  napi_get_last_error_info(env, &info);
  bool pending = false;
  napi_is_exception_pending(env, &pending);
  if (!pending) {
    napi_throw_error(env, nullptr,
                     info && info->error_message ? info->error_message : "napi call failed");
  }
  return nullptr;
}

napi_value throwType(napi_env env, const char* message) {
  napi_throw_type_error(env, nullptr, message);
  return nullptr;
}

std::string stringOf(napi_env env, napi_value value) {
  size_t length = 0;
  if (napi_get_value_string_utf8(env, value, nullptr, 0, &length) != napi_ok)
    return std::string();
  std::string text(length, '\0');
  napi_get_value_string_utf8(env, value, text.data(), length + 1, &length);
  return text;
}

napi_valuetype typeOf(napi_env env, napi_value value) {
  napi_valuetype type = napi_undefined;
  napi_typeof(env, value, &type);
  return type;
}

napi_value property(napi_env env, napi_value object, const char* name) {
  napi_value value = nullptr;
  napi_get_named_property(env, object, name, &value);
  return value;
}

// Bytes of a Buffer, TypedArray, ArrayBuffer or string.
bool bytesOf(napi_env env, napi_value value, std::string* out) {
  bool is = false;
  void* data = nullptr;
  size_t length = 0;
  if (napi_is_buffer(env, value, &is) == napi_ok && is) {
    napi_get_buffer_info(env, value, &data, &length);
  } else if (napi_is_typedarray(env, value, &is) == napi_ok && is) {
    napi_typedarray_type type;
    size_t count = 0, offset = 0;
    napi_value arrayBuffer;
    napi_get_typedarray_info(env, value, &type, &count, &data, &arrayBuffer, &offset);
    length = count;  // Uint8Array and friends: bytes
  } else if (napi_is_arraybuffer(env, value, &is) == napi_ok && is) {
    napi_get_arraybuffer_info(env, value, &data, &length);
  } else if (typeOf(env, value) == napi_string) {
    *out = stringOf(env, value);
    return true;
  } else {
    return false;
  }
  out->assign(static_cast<const char*>(data), length);
  return true;
}

// Events of one load, carried to the script thread in order.
struct LoadEvent {
  enum Kind { kResponse, kData, kDone } kind = kData;
  int status = 0;                   // kResponse
  arkweb_host::HeaderList headers;  // kResponse
  LoadResult result;                // kDone
};

// Body bytes on their way to script, and when the first of them came.
struct Batch {
  arkweb_host::BodySlice bytes;
  double atMs = 0;
};

// One load from script. Body pieces are batched: while a data event waits
// for the script thread, later pieces join it, so a busy script gets few
// large buffers and an idle one gets every piece at once. A batch grows in
// place until its block is full; the next one starts in a new block.
struct LoadContext {
  napi_deferred deferred = nullptr;
  napi_ref onData = nullptr;
  napi_ref onResponse = nullptr;
  napi_threadsafe_function events = nullptr;
  std::mutex mutex;
  std::vector<Batch> batches;    // guarded by mutex; the last one fills up
  arkweb_host::BodyWriter body;  // guarded by mutex
  bool dataQueued = false;       // guarded by mutex
  // The AbortSignal and the listener on it, removed when the load ends.
  napi_ref signal = nullptr;
  napi_ref abortListener = nullptr;
};

// Calls signal.addEventListener or signal.removeEventListener ("abort").
bool signalListener(napi_env env,
                    napi_value signal,
                    const char* method,
                    napi_value listener,
                    napi_value options) {
  napi_value type, args[3];
  napi_create_string_utf8(env, "abort", NAPI_AUTO_LENGTH, &type);
  args[0] = type;
  args[1] = listener;
  args[2] = options;
  napi_value function;
  return napi_get_named_property(env, signal, method, &function) == napi_ok &&
         napi_call_function(env, signal, function, options ? 3 : 2, args, nullptr) == napi_ok;
}

// Hands `bytes` to script without copying them; a runtime that refuses
// external buffers gets a copy. `release(hint)` runs once script lets go.
napi_value externalBuffer(napi_env env,
                          char* data,
                          size_t size,
                          napi_finalize release,
                          void* hint) {
  napi_value buffer = nullptr;
  if (napi_create_external_buffer(env, size, data, release, hint, &buffer) != napi_ok) {
    void* copy = nullptr;
    napi_create_buffer_copy(env, size, data, &copy, &buffer);
    release(env, data, hint);
  }
  return buffer;
}

napi_value externalBuffer(napi_env env, std::string&& bytes) {
  if (bytes.empty()) {
    napi_value empty;
    void* data = nullptr;
    napi_create_buffer(env, 0, &data, &empty);
    return empty;
  }
  auto* owned = new std::string(std::move(bytes));
  return externalBuffer(
      env, owned->data(), owned->size(),
      [](napi_env, void*, void* hint) { delete static_cast<std::string*>(hint); }, owned);
}

// The slice's block stays out of the pool until script lets go of it.
napi_value externalBuffer(napi_env env, arkweb_host::BodySlice&& slice) {
  if (slice.size == 0)
    return externalBuffer(env, std::string());
  char* data = slice.data();
  size_t size = slice.size;
  auto* block = new std::shared_ptr<arkweb_host::BodyBlock>(std::move(slice.block));
  return externalBuffer(
      env, data, size,
      [](napi_env, void*, void* hint) {
        delete static_cast<std::shared_ptr<arkweb_host::BodyBlock>*>(hint);
      },
      block);
}

napi_value headerPairs(napi_env env, const arkweb_host::HeaderList& list) {
  napi_value headers;
  napi_create_array_with_length(env, list.size(), &headers);
  for (size_t i = 0; i < list.size(); ++i) {
    napi_value pair, name, headerValue;
    napi_create_array_with_length(env, 2, &pair);
    napi_create_string_utf8(env, list[i].first.c_str(), list[i].first.size(), &name);
    napi_create_string_utf8(env, list[i].second.c_str(), list[i].second.size(), &headerValue);
    napi_set_element(env, pair, 0, name);
    napi_set_element(env, pair, 1, headerValue);
    napi_set_element(env, headers, static_cast<uint32_t>(i), pair);
  }
  return headers;
}

napi_value number(napi_env env, double value) {
  napi_value result;
  napi_create_double(env, value, &result);
  return result;
}

napi_value optionalNumber(napi_env env, double value) {
  if (value >= 0)
    return number(env, value);
  napi_value nullValue;
  napi_get_null(env, &nullValue);
  return nullValue;
}

napi_value resultObject(napi_env env, LoadResult& result) {
  napi_value object, value;
  napi_create_object(env, &object);
  napi_get_boolean(env, result.intercepted, &value);
  napi_set_named_property(env, object, "intercepted", value);
  napi_create_string_utf8(env, result.url.c_str(), result.url.size(), &value);
  napi_set_named_property(env, object, "url", value);
  // A load that failed before any response has no status.
  napi_set_named_property(env, object, "status",
                          optionalNumber(env, result.status > 0 ? result.status : -1));
  napi_create_string_utf8(env, result.statusText.c_str(), result.statusText.size(), &value);
  napi_set_named_property(env, object, "statusText", value);
  napi_set_named_property(env, object, "headers", headerPairs(env, result.headers));
  napi_create_string_utf8(env, result.mimeType.c_str(), result.mimeType.size(), &value);
  napi_set_named_property(env, object, "mimeType", value);
  napi_create_string_utf8(env, result.charset.c_str(), result.charset.size(), &value);
  napi_set_named_property(env, object, "charset", value);
  napi_set_named_property(env, object, "body", externalBuffer(env, std::move(result.body)));
  napi_set_named_property(env, object, "bodySize",
                          number(env, static_cast<double>(result.bodySize)));
  if (result.error != 0) {
    value = number(env, result.error);
  } else {
    napi_get_null(env, &value);
  }
  napi_set_named_property(env, object, "error", value);
  napi_set_named_property(env, object, "redirects", number(env, result.redirects));
  napi_value timing;
  napi_create_object(env, &timing);
  napi_set_named_property(env, timing, "start", number(env, result.timing.start));
  napi_set_named_property(env, timing, "response", optionalNumber(env, result.timing.response));
  napi_set_named_property(env, timing, "firstByte", optionalNumber(env, result.timing.firstByte));
  napi_set_named_property(env, timing, "finish", optionalNumber(env, result.timing.finish));
  napi_set_named_property(env, object, "timing", timing);
  return object;
}

// A callback that throws is the script's uncaught exception, as it would be
// from any other event; the load's later events still come.
void callScript(napi_env env, napi_ref function, size_t argc, napi_value* argv) {
  napi_value callback, undefined;
  napi_get_reference_value(env, function, &callback);
  napi_get_undefined(env, &undefined);
  if (napi_call_function(env, undefined, callback, argc, argv, nullptr) == napi_pending_exception) {
    napi_value error;
    napi_get_and_clear_last_exception(env, &error);
    napi_fatal_exception(env, error);
  }
}

void deliverEvent(napi_env env, napi_value /*js*/, void* contextData, void* eventData) {
  auto* context = static_cast<LoadContext*>(contextData);
  std::unique_ptr<LoadEvent> event(static_cast<LoadEvent*>(eventData));
  if (!env)
    return;  // the environment is going away
  switch (event->kind) {
    case LoadEvent::kResponse: {
      napi_value args[2] = {number(env, event->status), headerPairs(env, event->headers)};
      callScript(env, context->onResponse, 2, args);
      return;
    }
    case LoadEvent::kData: {
      std::vector<Batch> batches;
      {
        std::lock_guard<std::mutex> lock(context->mutex);
        batches.swap(context->batches);
        context->dataQueued = false;
      }
      for (Batch& batch : batches) {
        napi_value args[2] = {externalBuffer(env, std::move(batch.bytes)), number(env, batch.atMs)};
        callScript(env, context->onData, 2, args);
      }
      return;
    }
    case LoadEvent::kDone:
      break;
  }
  napi_resolve_deferred(env, context->deferred, resultObject(env, event->result));
  if (context->signal && context->abortListener) {
    napi_value signal, listener;
    napi_get_reference_value(env, context->signal, &signal);
    napi_get_reference_value(env, context->abortListener, &listener);
    signalListener(env, signal, "removeEventListener", listener, nullptr);
  }
  for (napi_ref* ref :
       {&context->onData, &context->onResponse, &context->signal, &context->abortListener}) {
    if (*ref)
      napi_delete_reference(env, *ref);
    *ref = nullptr;
  }
  napi_release_threadsafe_function(context->events, napi_tsfn_release);
}

void finalizeContext(napi_env, void* data, void*) {
  delete static_cast<LoadContext*>(data);
}

std::shared_ptr<WebComponent>* componentOf(napi_env env,
                                           napi_callback_info info,
                                           size_t* argc,
                                           napi_value* argv) {
  napi_value self;
  if (napi_get_cb_info(env, info, argc, argv, &self, nullptr) != napi_ok)
    return nullptr;
  void* wrapped = nullptr;
  if (napi_unwrap(env, self, &wrapped) != napi_ok)
    return nullptr;
  return static_cast<std::shared_ptr<WebComponent>*>(wrapped);
}

// [[name, value], ...] or {name: value}. Elements that are not pairs are
// refused (false) rather than read from null; sparse arrays are walked by
// their elements, not their length.
bool parseHeaders(napi_env env, napi_value value, arkweb_host::HeaderList* headers) {
  napi_valuetype type = typeOf(env, value);
  if (type == napi_undefined || type == napi_null)
    return true;
  if (type != napi_object)
    return false;
  bool isArray = false;
  napi_is_array(env, value, &isArray);
  napi_value keys;
  uint32_t length = 0;
  if (napi_get_property_names(env, value, &keys) != napi_ok ||
      napi_get_array_length(env, keys, &length) != napi_ok)
    return false;
  for (uint32_t i = 0; i < length; ++i) {
    napi_value key, element;
    if (napi_get_element(env, keys, i, &key) != napi_ok ||
        napi_get_property(env, value, key, &element) != napi_ok)
      return false;
    if (!isArray) {
      headers->emplace_back(stringOf(env, key), stringOf(env, element));
      continue;
    }
    bool isPair = false;
    napi_is_array(env, element, &isPair);
    napi_value name, headerValue;
    if (!isPair || napi_get_element(env, element, 0, &name) != napi_ok ||
        napi_get_element(env, element, 1, &headerValue) != napi_ok)
      return false;
    headers->emplace_back(stringOf(env, name), stringOf(env, headerValue));
  }
  return true;
}

void finalizeLoadHandle(napi_env, void* data, void*) {
  delete static_cast<std::shared_ptr<LoadHandle>*>(data);
}

napi_value AbortLoad(napi_env env, napi_callback_info info) {
  void* data = nullptr;
  if (napi_get_cb_info(env, info, nullptr, nullptr, nullptr, &data) == napi_ok && data)
    (*static_cast<std::shared_ptr<LoadHandle>*>(data))->cancel();
  return nullptr;
}

bool isAbortSignal(napi_env env, napi_value signal) {
  return typeOf(env, signal) == napi_object &&
         typeOf(env, property(env, signal, "aborted")) == napi_boolean &&
         typeOf(env, property(env, signal, "addEventListener")) == napi_function;
}

// Cancels the load when `signal` aborts. False when the listener could not
// be added.
bool cancelOnAbort(napi_env env,
                   napi_value signal,
                   std::shared_ptr<LoadHandle> handle,
                   LoadContext* context) {
  auto* holder = new std::shared_ptr<LoadHandle>(std::move(handle));
  napi_value listener;
  if (napi_create_function(env, "abort", NAPI_AUTO_LENGTH, AbortLoad, holder, &listener) !=
      napi_ok) {
    delete holder;
    return false;
  }
  if (napi_add_finalizer(env, listener, holder, finalizeLoadHandle, nullptr, nullptr) != napi_ok) {
    delete holder;  // the listener is never handed out, so nothing can call it
    return false;
  }
  napi_value once, onceFlag;
  napi_create_object(env, &once);
  napi_get_boolean(env, true, &onceFlag);
  napi_set_named_property(env, once, "once", onceFlag);
  if (!signalListener(env, signal, "addEventListener", listener, once))
    return false;
  napi_create_reference(env, signal, 1, &context->signal);
  napi_create_reference(env, listener, 1, &context->abortListener);
  return true;
}

napi_value Load(napi_env env, napi_callback_info info) {
  size_t argc = 1;
  napi_value argv[1] = {nullptr};
  auto* component = componentOf(env, info, &argc, argv);
  if (!component)
    return throwType(env, "load: not a web component");
  if (argc < 1 || typeOf(env, argv[0]) != napi_object) {
    return throwType(env, "load: expected an options object with a url");
  }
  napi_value options = argv[0];
  LoadOptions load;
  load.url = stringOf(env, property(env, options, "url"));
  if (load.url.empty())
    return throwType(env, "load: options.url must be a non-empty string");
  napi_value value = property(env, options, "method");
  if (typeOf(env, value) == napi_string)
    load.method = stringOf(env, value);
  if (!parseHeaders(env, property(env, options, "headers"), &load.headers)) {
    return throwType(env, "load: headers must be an object or an array of [name, value]");
  }
  value = property(env, options, "mainFrame");
  if (typeOf(env, value) == napi_boolean)
    napi_get_value_bool(env, value, &load.mainFrame);
  value = property(env, options, "referrer");
  if (typeOf(env, value) == napi_string)
    load.referrer = stringOf(env, value);
  value = property(env, options, "body");
  if (typeOf(env, value) != napi_undefined && typeOf(env, value) != napi_null) {
    std::string body;
    if (!bytesOf(env, value, &body))
      return throwType(env, "load: body must be a Buffer or string");
    load.body = std::move(body);
  }
  const std::pair<const char*, bool*> switches[] = {{"chunked", &load.chunked},
                                                    {"offline", &load.offline},
                                                    {"followRedirects", &load.followRedirects},
                                                    {"keepBody", &load.keepBody}};
  for (const auto& [name, target] : switches) {
    value = property(env, options, name);
    if (typeOf(env, value) == napi_boolean)
      napi_get_value_bool(env, value, target);
  }
  const std::pair<const char*, int*> errors[] = {{"bodyInitError", &load.bodyInitError},
                                                 {"bodyReadError", &load.bodyReadError}};
  for (const auto& [name, target] : errors) {
    value = property(env, options, name);
    if (typeOf(env, value) == napi_number)
      napi_get_value_int32(env, value, target);
  }
  value = property(env, options, "cancelAfterMs");
  if (typeOf(env, value) == napi_number) {
    double ms = 0;
    napi_get_value_double(env, value, &ms);
    load.cancelAfterMs = static_cast<long>(ms);
  }
  // A signal that has already aborted stops the load before it starts; a
  // live one gets a listener once the load is under way.
  napi_value signal = property(env, options, "signal");
  bool hasSignal = typeOf(env, signal) != napi_undefined && typeOf(env, signal) != napi_null;
  if (hasSignal && !isAbortSignal(env, signal))
    return throwType(env, "load: signal must be an AbortSignal");
  bool aborted = false;
  if (hasSignal)
    napi_get_value_bool(env, property(env, signal, "aborted"), &aborted);
  if (aborted)
    load.cancelAfterMs = 0;

  auto* context = new LoadContext();
  napi_value promise;
  NAPI_OK(napi_create_promise(env, &context->deferred, &promise));
  napi_value onData = property(env, options, "onData");
  if (typeOf(env, onData) == napi_function)
    napi_create_reference(env, onData, 1, &context->onData);
  napi_value onResponse = property(env, options, "onResponse");
  if (typeOf(env, onResponse) == napi_function)
    napi_create_reference(env, onResponse, 1, &context->onResponse);
  napi_value name;
  napi_create_string_utf8(env, "arkweb_host.load", NAPI_AUTO_LENGTH, &name);
  NAPI_OK(napi_create_threadsafe_function(env, nullptr, nullptr, name, 0, 1, context,
                                          finalizeContext, context, deliverEvent,
                                          &context->events));
  napi_threadsafe_function events = context->events;
  // The engine calls these before the load's end, while the context lives.
  if (context->onResponse) {
    load.onResponse = [events](int status, const std::string&,
                               const arkweb_host::HeaderList& headers) {
      auto* event = new LoadEvent();
      event->kind = LoadEvent::kResponse;
      event->status = status;
      event->headers = headers;
      napi_call_threadsafe_function(events, event, napi_tsfn_blocking);
    };
  }
  if (context->onData) {
    load.onData = [context, events](const char* data, size_t size, double atMs) {
      bool post = false;
      {
        std::lock_guard<std::mutex> lock(context->mutex);
        auto& batches = context->batches;
        if (batches.empty() || !context->body.extend(batches.back().bytes, data, size))
          batches.push_back(Batch{context->body.write(data, size), atMs});
        post = !context->dataQueued;
        context->dataQueued = true;
      }
      if (post)
        napi_call_threadsafe_function(events, new LoadEvent(), napi_tsfn_blocking);
    };
  }
  std::shared_ptr<LoadHandle> handle =
      (*component)->load(std::move(load), [events](LoadResult result) {
        auto* event = new LoadEvent();
        event->kind = LoadEvent::kDone;
        event->result = std::move(result);
        napi_call_threadsafe_function(events, event, napi_tsfn_blocking);
      });
  // A load that cannot be stopped as asked is not left running.
  if (hasSignal && !aborted && !cancelOnAbort(env, signal, handle, context))
    handle->cancel();
  return promise;
}

napi_value Destroy(napi_env env, napi_callback_info info) {
  size_t argc = 0;
  auto* component = componentOf(env, info, &argc, nullptr);
  if (!component)
    return throwType(env, "destroy: not a web component");
  (*component)->destroy();
  return nullptr;
}

void finalizeComponent(napi_env, void* data, void*) {
  delete static_cast<std::shared_ptr<WebComponent>*>(data);
}

napi_value CreateWebComponent(napi_env env, napi_callback_info info) {
  size_t argc = 1;
  napi_value argv[1] = {nullptr};
  napi_get_cb_info(env, info, &argc, argv, nullptr, nullptr);
  if (argc < 1 || typeOf(env, argv[0]) != napi_string) {
    return throwType(env, "createWebComponent: expected the web tag as a string");
  }
  std::string tag = stringOf(env, argv[0]);
  napi_value object;
  NAPI_OK(napi_create_object(env, &object));
  napi_value tagValue;
  napi_create_string_utf8(env, tag.c_str(), tag.size(), &tagValue);
  napi_property_descriptor properties[] = {
      {"tag", nullptr, nullptr, nullptr, nullptr, tagValue, napi_enumerable, nullptr},
      {"load", nullptr, Load, nullptr, nullptr, nullptr, napi_default, nullptr},
      {"destroy", nullptr, Destroy, nullptr, nullptr, nullptr, napi_default, nullptr},
  };
  NAPI_OK(napi_define_properties(env, object, 3, properties));
  auto* component = new std::shared_ptr<WebComponent>(WebComponent::create(tag));
  NAPI_OK(napi_wrap(env, object, component, finalizeComponent, nullptr, nullptr));
  return object;
}

napi_value RegisterPlatformModule(napi_env env, napi_callback_info info) {
  size_t argc = 2;
  napi_value argv[2] = {nullptr, nullptr};
  napi_get_cb_info(env, info, &argc, argv, nullptr, nullptr);
  if (argc < 2 || typeOf(env, argv[0]) != napi_string) {
    return throwType(env, "registerPlatformModule: expected (name, module)");
  }
  NAPI_OK(velora_register_platform_module(env, stringOf(env, argv[0]).c_str(), argv[1]));
  return nullptr;
}

napi_value WaitIdle(napi_env, napi_callback_info) {
  arkweb_host::waitIdle();
  return nullptr;
}

napi_value TakeRuleViolations(napi_env env, napi_callback_info) {
  arkweb_host::RuleViolations taken = arkweb_host::takeRuleViolations();
  napi_value result, count, first;
  NAPI_OK(napi_create_object(env, &result));
  NAPI_OK(napi_create_double(env, static_cast<double>(taken.count), &count));
  NAPI_OK(napi_create_string_utf8(env, taken.first.data(), taken.first.size(), &first));
  NAPI_OK(napi_set_named_property(env, result, "count", count));
  NAPI_OK(napi_set_named_property(env, result, "first", first));
  return result;
}

// JSON.stringify(value) / JSON.parse(text) of the script runtime.
bool jsonCall(napi_env env, const char* method, napi_value argument, napi_value* result) {
  napi_value global, json, function;
  return napi_get_global(env, &global) == napi_ok &&
         napi_get_named_property(env, global, "JSON", &json) == napi_ok &&
         napi_get_named_property(env, json, method, &function) == napi_ok &&
         napi_call_function(env, json, function, 1, &argument, result) == napi_ok;
}

napi_value LoadAbility(napi_env env, napi_callback_info info) {
  size_t argc = 2;
  napi_value argv[2] = {nullptr, nullptr};
  napi_get_cb_info(env, info, &argc, argv, nullptr, nullptr);
  if (argc < 2 || typeOf(env, argv[0]) != napi_string || typeOf(env, argv[1]) != napi_string)
    return throwType(env, "loadAbility: expected (libraryPath, abilityName)");
  napi_value result;
  napi_get_boolean(
      env, omni::AbilityRegistry::loadAbility(stringOf(env, argv[0]), stringOf(env, argv[1])),
      &result);
  return result;
}

// One callAbility in flight: the call runs on a worker thread (it waits for
// the ability's answer), the promise settles on the script thread.
struct AbilityCall {
  std::string ability;
  std::string api;
  std::shared_ptr<omni::AbilityContext> context = std::make_shared<omni::AbilityContext>();
  nlohmann::json data;
  std::string resultJson;
  napi_deferred deferred = nullptr;
  napi_async_work work = nullptr;
};

napi_value CallAbility(napi_env env, napi_callback_info info) {
  size_t argc = 4;
  napi_value argv[4] = {nullptr, nullptr, nullptr, nullptr};
  napi_get_cb_info(env, info, &argc, argv, nullptr, nullptr);
  if (argc < 2 || typeOf(env, argv[0]) != napi_string || typeOf(env, argv[1]) != napi_string)
    return throwType(env, "callAbility: expected (ability, api, userData, data)");
  auto call = std::make_unique<AbilityCall>();
  call->ability = stringOf(env, argv[0]);
  call->api = stringOf(env, argv[1]);
  if (argc > 2 && typeOf(env, argv[2]) == napi_object) {
    napi_value names;
    uint32_t count = 0;
    NAPI_OK(napi_get_property_names(env, argv[2], &names));
    NAPI_OK(napi_get_array_length(env, names, &count));
    for (uint32_t i = 0; i < count; ++i) {
      napi_value name, value;
      NAPI_OK(napi_get_element(env, names, i, &name));
      NAPI_OK(napi_get_property(env, argv[2], name, &value));
      if (typeOf(env, value) == napi_string)
        call->context->setDataToUserDataMap(stringOf(env, name), stringOf(env, value));
    }
  }
  if (argc > 3 && typeOf(env, argv[3]) != napi_undefined) {
    napi_value text;
    if (!jsonCall(env, "stringify", argv[3], &text) || typeOf(env, text) != napi_string)
      return throwType(env, "callAbility: data must be JSON-serialisable");
    call->data = nlohmann::json::parse(stringOf(env, text), nullptr, false);
  }
  napi_value promise, name;
  NAPI_OK(napi_create_promise(env, &call->deferred, &promise));
  NAPI_OK(napi_create_string_utf8(env, "callAbility", NAPI_AUTO_LENGTH, &name));
  NAPI_OK(napi_create_async_work(
      env, nullptr, name,
      [](napi_env, void* data) {
        auto* call = static_cast<AbilityCall*>(data);
        omni::ExecuteResult result = omni::AbilityAdapter::create("host")->syncCall(
            call->ability, call->api, call->context, omni::AbilityData(call->data));
        nlohmann::json map(result.toFormattedData().getAnyMapData());
        call->resultJson = map.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
      },
      [](napi_env env, napi_status, void* data) {
        std::unique_ptr<AbilityCall> call(static_cast<AbilityCall*>(data));
        napi_value text, result;
        napi_create_string_utf8(env, call->resultJson.data(), call->resultJson.size(), &text);
        if (jsonCall(env, "parse", text, &result))
          napi_resolve_deferred(env, call->deferred, result);
        else
          napi_reject_deferred(env, call->deferred, text);
        napi_delete_async_work(env, call->work);
      },
      call.get(), &call->work));
  NAPI_OK(napi_queue_async_work(env, call->work));
  call.release();
  return promise;
}

napi_value Init(napi_env env, napi_value exports) {
  napi_property_descriptor properties[] = {
      {"createWebComponent", nullptr, CreateWebComponent, nullptr, nullptr, nullptr,
       napi_enumerable, nullptr},
      {"registerPlatformModule", nullptr, RegisterPlatformModule, nullptr, nullptr, nullptr,
       napi_enumerable, nullptr},
      {"waitIdle", nullptr, WaitIdle, nullptr, nullptr, nullptr, napi_enumerable, nullptr},
      {"takeRuleViolations", nullptr, TakeRuleViolations, nullptr, nullptr, nullptr,
       napi_enumerable, nullptr},
      {"loadAbility", nullptr, LoadAbility, nullptr, nullptr, nullptr, napi_enumerable, nullptr},
      {"callAbility", nullptr, CallAbility, nullptr, nullptr, nullptr, napi_enumerable, nullptr},
  };
  napi_define_properties(env, exports, sizeof(properties) / sizeof(properties[0]), properties);
  return exports;
}

}  // namespace

NAPI_MODULE(arkweb_host, Init)
