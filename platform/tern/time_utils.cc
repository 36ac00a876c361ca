#include "tern/time_utils.h"
#include "tern/host_config.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace tern {
namespace {

// INT64_MIN: the real clock.
std::atomic<int64_t> g_fixedMs{INT64_MIN};

}  // namespace

int64_t currentTimeMillis() {
  int64_t fixed = g_fixedMs.load(std::memory_order_relaxed);
  if (fixed != INT64_MIN)
    return fixed;
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

void fixTimeMillis(int64_t ms) {
  g_fixedMs.store(ms, std::memory_order_relaxed);
}

void clearFixedTime() {
  g_fixedMs.store(INT64_MIN, std::memory_order_relaxed);
}

}  // namespace tern
