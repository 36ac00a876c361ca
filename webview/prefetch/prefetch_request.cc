#include "prefetch/prefetch_request.h"

namespace velora {

std::atomic<uint64_t> PrefetchRequest::nextPrefetchId{1};

PrefetchRequest::PrefetchRequest(const std::shared_ptr<PrefetchRequest>& other)
    : requestId_(std::to_string(getNextPrefetchId())),
      url_(other->url_),
      method_(other->method_),
      headers_(other->headers_) {}

}  // namespace velora
