#include "first_chunk/first_chunk_context.h"

#include <cinttypes>
#include <cstdio>

#include "tern/time_utils.h"

namespace velora {
namespace {

// FNV-1a: a stable fingerprint, the same in every build and every run.
uint64_t fingerprint(const std::string& bytes) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

}  // namespace

bool FirstChunkContext::isExpired() const {
  return expiredTime_ < static_cast<double>(tern::currentTimeMillis());
}

std::string FirstChunkContext::toString() const {
  return "{\"enable\"=" + std::to_string(enable_ ? 1 : 0) + ",\"url\"=" + url_ +
         ",\"rule\"=" + rule_ + ",\"version\"=" + version_ +
         ",\"expiredTime\"=" + std::to_string(expiredTime_) + ",\"html\"=" + html_ + "}";
}

std::string FirstChunkContext::toLogString() const {
  char html[64];
  std::snprintf(html, sizeof(html), "%zu bytes, fnv1a %016" PRIx64, html_.size(),
                fingerprint(html_));
  return "{\"enable\"=" + std::to_string(enable_ ? 1 : 0) + ",\"url\"=" + url_ +
         ",\"rule\"=" + rule_ + ",\"version\"=" + version_ +
         ",\"expiredTime\"=" + std::to_string(expiredTime_) + ",\"html\"=" + html + "}";
}

}  // namespace velora
