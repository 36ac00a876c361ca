// Wall-clock time.
#ifndef TERN_TIME_UTILS_H
#define TERN_TIME_UTILS_H

#include <cstdint>

namespace tern {

// Milliseconds since the Unix epoch.
int64_t currentTimeMillis();

}  // namespace tern

#endif  // TERN_TIME_UTILS_H
