#include "prefetch/ark_ts_prefetch_request_callback.h"

#include <cstring>

#include "hilog/log.h"
#include "napi/napi_helper.h"
#include "napi/thread_helper.h"
#include "network/buffer.h"

namespace velora {
namespace {

using Context = std::shared_ptr<ArkTsPrefetchRequestCallBack>;

void logLine(const char* message) {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, nullptr, "%{public}s", message);
}

// [{key: name, value: [values...]}...] in name order.
napi_value headersValue(napi_env env, const HeaderMultimap& headers) {
  napi_value array = NapiHelper::createArrayWithLength(env, headers.size());
  uint32_t index = 0;
  for (const auto& [name, values] : headers) {
    napi_value entry = NapiHelper::createObj(env);
    napi_set_named_property(env, entry, "key", NapiHelper::createStringValue(env, name));
    napi_value list = NapiHelper::createArrayWithLength(env, values.size());
    uint32_t i = 0;
    for (const auto& value : values) {
      napi_set_element(env, list, i++, NapiHelper::createStringValue(env, value));
    }
    napi_set_named_property(env, entry, "value", list);
    napi_set_element(env, array, index++, entry);
  }
  return array;
}

template <typename T>
void deleteAs(void* payload) {
  delete static_cast<T*>(payload);
}

}  // namespace

std::shared_ptr<ArkTsPrefetchRequestCallBack> ArkTsPrefetchRequestCallBack::create(
    napi_env env,
    napi_value callbacks) {
  auto callback = std::make_shared<ArkTsPrefetchRequestCallBack>();
  callback->env_ = env;
  callback->threadId_ = ThreadHelper::getCurrentThreadId();
  napi_create_reference(env, callbacks, 1, &callback->callbacksRef_);
  struct Kind {
    const char* property;
    const char* resource;
    napi_threadsafe_function_call_js callJs;
    napi_threadsafe_function* target;
  };
  const Kind kinds[] = {
      {"onResponse", "ArkTsPrefetchRequestCallBack::onResponse", onResponseCallJs,
       &callback->onResponseFunc_},
      {"onNetResponse", "ArkTsPrefetchRequestCallBack::onNetResponse", onNetResponseCallJs,
       &callback->onNetResponseFunc_},
      {"onData", "ArkTsPrefetchRequestCallBack::onData", onDataCallJs, &callback->onDataFunc_},
      {"onFinish", "ArkTsPrefetchRequestCallBack::onFinish", onFinishCallJs,
       &callback->onFinishFunc_},
      {"onError", "ArkTsPrefetchRequestCallBack::onError", onErrorCallJs, &callback->onErrorFunc_},
  };
  for (const Kind& kind : kinds) {
    napi_value name = NapiHelper::createStringValue(env, kind.resource);
    napi_value function = NapiHelper::getNamedProperty(env, callbacks, kind.property);
    napi_valuetype type = napi_undefined;
    napi_typeof(env, function, &type);
    // A missing callback still gets its function; its events reach nobody.
    if (type != napi_function)
      function = nullptr;
    // Freed with the function: it keeps the receiver alive for every event
    // still queued.
    auto* context = new Context(callback);
    napi_create_threadsafe_function(
        env, function, nullptr, name, 0, 1, context,
        [](napi_env env, void* data, void*) {
          auto* context = static_cast<Context*>(data);
          (*context)->functionFinalized(env);
          delete context;
        },
        context, kind.callJs, kind.target);
    ++callback->liveFunctions_;
    // Idle functions must not keep the script runtime from exiting.
    napi_unref_threadsafe_function(env, *kind.target);
  }
  // Cleanup hooks run last-registered first: this one, before the functions'.
  napi_add_env_cleanup_hook(env, close, callback.get());
  callback->hookRegistered_ = true;
  return callback;
}

ArkTsPrefetchRequestCallBack::~ArkTsPrefetchRequestCallBack() {
  OH_LOG_Print(LOG_APP, LOG_DEBUG, 0, nullptr, "~ArkTsPrefetchRequestCallBack");
}

void ArkTsPrefetchRequestCallBack::post(napi_threadsafe_function function,
                                        void* payload,
                                        void (*drop)(void*),
                                        bool last) {
  std::lock_guard<std::mutex> lock(postMutex_);
  bool posted = !closed_ &&
                napi_call_threadsafe_function(function, payload, napi_tsfn_nonblocking) == napi_ok;
  if (!posted && payload)
    drop(payload);
  if (last)
    closed_ = true;
}

void ArkTsPrefetchRequestCallBack::close(void* self) {
  auto* callback = static_cast<ArkTsPrefetchRequestCallBack*>(self);
  {
    std::lock_guard<std::mutex> lock(callback->postMutex_);
    callback->closed_ = true;
  }
  callback->hookRegistered_ = false;  // running now, gone afterwards
  callback->release(callback->env_);
}

void ArkTsPrefetchRequestCallBack::release(napi_env env) {
  if (released_)
    return;
  released_ = true;
  if (hookRegistered_)
    napi_remove_env_cleanup_hook(env, close, this);
  for (napi_threadsafe_function function :
       {onResponseFunc_, onNetResponseFunc_, onDataFunc_, onFinishFunc_, onErrorFunc_}) {
    // Events still queued in a function are delivered before it goes; the
    // reference to the callbacks object goes with the last function.
    napi_release_threadsafe_function(function, napi_tsfn_release);
  }
}

void ArkTsPrefetchRequestCallBack::functionFinalized(napi_env env) {
  if (--liveFunctions_ == 0 && callbacksRef_ && env) {
    napi_delete_reference(env, callbacksRef_);
    callbacksRef_ = nullptr;
  }
}

void ArkTsPrefetchRequestCallBack::callScript(napi_env env,
                                              napi_value jsCallback,
                                              size_t argc,
                                              const napi_value* argv) {
  if (!env || !jsCallback || !callbacksRef_)
    return;
  napi_value self = NapiHelper::getValueFromRef(env, callbacksRef_);
  napi_call_function(env, self, jsCallback, argc, argv, nullptr);
  // A throwing script callback must not leave an exception pending here.
  bool pending = false;
  napi_is_exception_pending(env, &pending);
  if (pending) {
    napi_value ignored;
    napi_get_and_clear_last_exception(env, &ignored);
  }
}

void ArkTsPrefetchRequestCallBack::onResponse(int statusCode, const HeaderMultimap& headers) {
  auto* payload = new ArkTsPrefetchRequestCallBackResponse();
  payload->statusCode = statusCode;
  payload->headers = headers;
  post(onResponseFunc_, payload, deleteAs<ArkTsPrefetchRequestCallBackResponse>, false);
}

void ArkTsPrefetchRequestCallBack::onNetResponse(int statusCode, const HeaderMultimap& headers) {
  auto* payload = new ArkTsPrefetchRequestCallBackResponse();
  payload->statusCode = statusCode;
  payload->headers = headers;
  post(onNetResponseFunc_, payload, deleteAs<ArkTsPrefetchRequestCallBackResponse>, false);
}

void ArkTsPrefetchRequestCallBack::onData(const unsigned char* data, unsigned long length) {
  auto* payload = new ArkTsPrefetchRequestCallBackData();
  payload->data = Buffer::copyData(data, length);
  payload->length = length;
  post(onDataFunc_, payload, deleteAs<ArkTsPrefetchRequestCallBackData>, false);
  logLine("ondata");
}

void ArkTsPrefetchRequestCallBack::onFinish() {
  post(onFinishFunc_, nullptr, nullptr, true);
  logLine("onFinish");
}

void ArkTsPrefetchRequestCallBack::onError(int code,
                                           ArkWeb_NetError /*error*/,
                                           const std::string& message) {
  auto* payload = new ArkTsPrefetchRequestCallBackError();
  payload->code = code;
  payload->message = message;
  post(onErrorFunc_, payload, deleteAs<ArkTsPrefetchRequestCallBackError>, true);
  logLine("onError");
}

void ArkTsPrefetchRequestCallBack::onResponseCallJs(napi_env env,
                                                    napi_value jsCallback,
                                                    void* context,
                                                    void* data) {
  // Without env the function is being torn down: its context may be gone.
  std::unique_ptr<ArkTsPrefetchRequestCallBackResponse> payload(
      static_cast<ArkTsPrefetchRequestCallBackResponse*>(data));
  if (!env)
    return;
  Context self = *static_cast<Context*>(context);
  napi_value args[2] = {NapiHelper::createInt32Value(env, payload->statusCode),
                        headersValue(env, payload->headers)};
  payload.reset();
  self->callScript(env, jsCallback, 2, args);
}

void ArkTsPrefetchRequestCallBack::onNetResponseCallJs(napi_env env,
                                                       napi_value jsCallback,
                                                       void* context,
                                                       void* data) {
  onResponseCallJs(env, jsCallback, context, data);
}

void ArkTsPrefetchRequestCallBack::onDataCallJs(napi_env env,
                                                napi_value jsCallback,
                                                void* context,
                                                void* data) {
  std::unique_ptr<ArkTsPrefetchRequestCallBackData> payload(
      static_cast<ArkTsPrefetchRequestCallBackData*>(data));
  if (!env)
    return;
  Context self = *static_cast<Context*>(context);
  void* bytes = nullptr;
  napi_value buffer = nullptr;
  napi_create_arraybuffer(env, payload->length, &bytes, &buffer);
  if (payload->length > 0 && bytes)
    std::memcpy(bytes, payload->data, payload->length);
  payload.reset();
  self->callScript(env, jsCallback, 1, &buffer);
}

void ArkTsPrefetchRequestCallBack::onFinishCallJs(napi_env env,
                                                  napi_value jsCallback,
                                                  void* context,
                                                  void* /*data*/) {
  if (!env)
    return;
  Context self = *static_cast<Context*>(context);
  self->callScript(env, jsCallback, 0, nullptr);
  self->release(env);
}

void ArkTsPrefetchRequestCallBack::onErrorCallJs(napi_env env,
                                                 napi_value jsCallback,
                                                 void* context,
                                                 void* data) {
  std::unique_ptr<ArkTsPrefetchRequestCallBackError> payload(
      static_cast<ArkTsPrefetchRequestCallBackError*>(data));
  if (!env)
    return;
  Context self = *static_cast<Context*>(context);
  napi_value args[2] = {NapiHelper::createInt32Value(env, payload->code),
                        NapiHelper::createStringValue(env, payload->message)};
  payload.reset();
  self->callScript(env, jsCallback, 2, args);
  self->release(env);
}

}  // namespace velora
