// The host engine's objects behind the opaque ArkWeb handles, shared by the
// C API (scheme_handler_api.cc) and the engine (web_engine.cc).
#ifndef VELORA_PLATFORM_ARKWEB_ENGINE_INTERNAL_H
#define VELORA_PLATFORM_ARKWEB_ENGINE_INTERNAL_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "arkweb/task_runner.h"
#include "arkweb_host/web_component.h"
#include "web/arkweb_scheme_handler.h"

struct ArkWeb_SchemeHandler_ {
  std::atomic<ArkWeb_OnRequestStart> onStart{nullptr};
  std::atomic<ArkWeb_OnRequestStop> onStop{nullptr};
  std::atomic<void*> userData{nullptr};
};

// An upload body as the page sends it.
struct BodySource {
  std::string bytes;
  bool chunked = false;
  int initError = 0;  // an ArkWeb_NetError the stream's Init ends with; 0: it succeeds
  int readError = 0;  // an ArkWeb_NetError reads end with after the first piece; 0: none
};

struct ArkWeb_ResourceRequest_ {
  uint64_t id = 0;  // owner id of the strings handed out for this request
  std::string url;
  std::string method;
  std::string referrer;
  std::string frameUrl;
  arkweb_host::HeaderList headers;
  bool mainFrame = true;
  bool redirect = false;
  std::shared_ptr<const BodySource> body;  // null: no body
  std::atomic<void*> userData{nullptr};
};

struct ArkWeb_Response_ {
  std::mutex mutex;
  std::string url;
  int status = 200;
  std::string statusText;
  std::string mimeType;
  std::string charset;
  arkweb_host::HeaderList headers;
  ArkWeb_NetError error = ARKWEB_NET_OK;
};

struct ArkWeb_RequestHeaderList_ {
  arkweb_host::HeaderList headers;
};

// State of an upload stream; the handle the app holds points at it. Reads
// copy on the engine's worker thread; Init and Read complete on the IO
// thread, where they were called, and call back under `mutex`, so destroying
// the handle from another thread waits for a running callback, and a
// callback may destroy its own handle.
struct BodyStreamState {
  std::recursive_mutex mutex;
  std::shared_ptr<const BodySource> source;
  uint64_t position = 0;
  bool initialized = false;  // Init completed successfully
  bool destroyed = false;
  void* userData = nullptr;
  ArkWeb_HttpBodyStreamReadCallback readCallback = nullptr;
};

struct ArkWeb_HttpBodyStream_ {
  std::shared_ptr<BodyStreamState> state;
};

namespace arkweb_host {

// The hilog tag of the host engine's lines.
inline constexpr char kEngineLogTag[] = "ArkWeb/host";

class Load;

// The engine's threads: "io" runs the scheme handler's callbacks and is the
// one thread for body-stream calls, "worker" copies upload bytes.
TaskRunner& ioThread();
TaskRunner& workerThread();

// A call broke one of the rules in arkweb_host/rules.h: logs `what` at error
// level and counts it; refusing the call is the caller's part. Any thread.
void reportRuleViolation(const std::string& what);

// Engine-allocated strings: the app releases each with OH_ArkWeb_ReleaseString,
// whatever became of the request it came from, as on the device. Strings
// never released are reported when the process exits (and are leaks to
// LeakSanitizer).
char* copyString(const std::string& text);

}  // namespace arkweb_host

struct ArkWeb_ResourceHandler_ {
  std::shared_ptr<arkweb_host::Load> load;
};

namespace arkweb_host {

// One page load: the engine side of the ArkWeb resource handler.
class Load : public std::enable_shared_from_this<Load> {
 public:
  // Calls from the app through the resource handler, from any thread.
  int32_t didReceiveResponse(const ArkWeb_Response* response);
  int32_t didReceiveData(const uint8_t* buffer, int64_t length);
  int32_t didFinish();
  int32_t didFailWithError(ArkWeb_NetError error, bool completeIfNoResponse);

  // Engine side.
  virtual ~Load() = default;
  virtual void complete(int error) = 0;

 protected:
  enum class State { kStarted, kResponded, kEnded };
  void recordResponse(int status,
                      std::string statusText,
                      HeaderList headers,
                      std::string mimeType,
                      std::string charset);
  void recordData(const char* data, size_t size);
  void recordDataLocked(const char* data, size_t size);  // mutex_ held, kResponded

  std::mutex mutex_;
  State state_ = State::kStarted;  // guarded by mutex_
  LoadOptions options_;            // set at construction, then only read: no lock needed
  LoadResult result_;              // guarded by mutex_ until kEnded
  // Set by a response that carries an error: the load ends with it at DidFinish.
  int responseError_ = 0;  // guarded by mutex_
};

}  // namespace arkweb_host

#endif  // VELORA_PLATFORM_ARKWEB_ENGINE_INTERNAL_H
