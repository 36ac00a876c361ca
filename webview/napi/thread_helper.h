#ifndef VELORA_WEBVIEW_NAPI_THREAD_HELPER_H
#define VELORA_WEBVIEW_NAPI_THREAD_HELPER_H

#include <pthread.h>

#include <cstdint>

namespace velora {

class ThreadHelper {
 public:
  // The calling thread's pthread_self(), for log lines.
  static uint64_t getCurrentThreadId() { return static_cast<uint64_t>(pthread_self()); }
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NAPI_THREAD_HELPER_H
