#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_HELPER_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_HELPER_H

#include <cstdint>
#include <memory>
#include <utility>

#include "napi/native_api.h"
#include "network/net_request.h"
#include "prefetch/prefetch_request.h"

namespace velora {

class PrefetchHelper {
 public:
  // Headers a prefetch may carry; more are left out with a log line.
  static constexpr uint32_t kMaxHeaders = 256;

  // prefetch({url, method, headers: [{key, value}...]}, callbacks?): the
  // request and, when a callbacks object is given, its script receiver.
  // Script thread.
  static std::pair<std::shared_ptr<PrefetchRequest>, std::shared_ptr<NetRequestCallBack>>
  parsePrefetchRequestParams(napi_env env, napi_callback_info info);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_HELPER_H
