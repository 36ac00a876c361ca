#include "tern/time_utils.h"

#include <chrono>

namespace tern {

int64_t currentTimeMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace tern
