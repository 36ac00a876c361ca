#include "first_chunk/first_chunk_context.h"

#include "tern/time_utils.h"

namespace velora {

bool FirstChunkContext::isExpired() const {
  return expiredTime_ < static_cast<double>(tern::currentTimeMillis());
}

std::string FirstChunkContext::toString() const {
  return "{\"enable\"=" + std::to_string(enable_ ? 1 : 0) + ",\"url\"=" + url_ +
         ",\"rule\"=" + rule_ + ",\"version\"=" + version_ +
         ",\"expiredTime\"=" + std::to_string(expiredTime_) + ",\"html\"=" + html_ + "}";
}

}  // namespace velora
