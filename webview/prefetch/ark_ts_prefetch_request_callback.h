// The receiver of a prefetch started from script: carries each event to the
// script thread and calls the script's callbacks there.
#ifndef VELORA_WEBVIEW_PREFETCH_ARK_TS_PREFETCH_REQUEST_CALLBACK_H
#define VELORA_WEBVIEW_PREFETCH_ARK_TS_PREFETCH_REQUEST_CALLBACK_H

#include <cstdint>
#include <memory>
#include <mutex>

#include "napi/native_api.h"
#include "network/net_request.h"
#include "network/ssr_chunked_cache_request_callback.h"

namespace velora {

// Payloads, made on the network thread and freed on the script thread.
struct ArkTsPrefetchRequestCallBackResponse {
  virtual ~ArkTsPrefetchRequestCallBackResponse() = default;
  int statusCode = 0;
  HeaderMultimap headers;
};

struct ArkTsPrefetchRequestCallBackData {
  virtual ~ArkTsPrefetchRequestCallBackData() { delete[] data; }
  unsigned char* data = nullptr;  // owned copy
  unsigned long length = 0;
};

struct ArkTsPrefetchRequestCallBackError {
  virtual ~ArkTsPrefetchRequestCallBackError() = default;
  int code = 0;
  std::string message;
};

// Operations run on network threads and only post; the script callbacks run
// on the script thread of `env`, with `this` = the callbacks object. The
// thread-safe functions hold the object, so an event never reaches a freed
// receiver. After the last event (finish or error) has been posted nothing
// more is, and once its script callback has run the functions and the
// reference are released. When the script runtime shuts down first, posting
// stops before its thread-safe functions go.
class ArkTsPrefetchRequestCallBack : public NetRequestCallBack,
                                     public SSRChunkedCacheRequestCallBack {
 public:
  // Script thread. `callbacks` is the script's callbacks object.
  static std::shared_ptr<ArkTsPrefetchRequestCallBack> create(napi_env env, napi_value callbacks);
  virtual ~ArkTsPrefetchRequestCallBack();

  void onResponse(int statusCode, const HeaderMultimap& headers) override;
  void onData(const unsigned char* data, unsigned long length) override;
  void onFinish() override;
  void onError(int code, ArkWeb_NetError error, const std::string& message) override;
  void onNetResponse(int statusCode, const HeaderMultimap& headers) override;

  static void onResponseCallJs(napi_env env, napi_value jsCallback, void* context, void* data);
  static void onNetResponseCallJs(napi_env env, napi_value jsCallback, void* context, void* data);
  static void onDataCallJs(napi_env env, napi_value jsCallback, void* context, void* data);
  static void onFinishCallJs(napi_env env, napi_value jsCallback, void* context, void* data);
  static void onErrorCallJs(napi_env env, napi_value jsCallback, void* context, void* data);

 private:
  // Calls `jsCallback` with `this` = the callbacks object.
  void callScript(napi_env env, napi_value jsCallback, size_t argc, const napi_value* argv);
  // Posts `payload` (deleted by `drop` when it cannot be posted); `last`
  // closes the receiver to later posts.
  void post(napi_threadsafe_function function, void* payload, void (*drop)(void*), bool last);
  // Script thread, after the last event's callback: lets the functions go.
  void release(napi_env env);
  // Script thread: one of the five functions went; the last one takes the
  // reference to the callbacks object with it.
  void functionFinalized(napi_env env);
  // Environment cleanup hook: no post from now on, and the functions go
  // (the device runtime does not release them itself).
  static void close(void* self);

  napi_env env_ = nullptr;
  uint64_t threadId_ = 0;  // the script thread
  napi_ref callbacksRef_ = nullptr;
  napi_threadsafe_function onResponseFunc_ = nullptr;
  napi_threadsafe_function onNetResponseFunc_ = nullptr;
  napi_threadsafe_function onDataFunc_ = nullptr;
  napi_threadsafe_function onFinishFunc_ = nullptr;
  napi_threadsafe_function onErrorFunc_ = nullptr;
  std::mutex postMutex_;         // held while posting, so close() waits for a post under way
  bool closed_ = false;          // guarded by postMutex_
  bool released_ = false;        // script thread
  bool hookRegistered_ = false;  // script thread
  int liveFunctions_ = 0;        // script thread
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_ARK_TS_PREFETCH_REQUEST_CALLBACK_H
