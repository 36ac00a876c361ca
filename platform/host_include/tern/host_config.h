// Host-only configuration of the base library.
#ifndef TERN_HOST_CONFIG_H
#define TERN_HOST_CONFIG_H

#include <cstdint>
#include <string>

namespace tern {

// The stores use the database file at `path` from now on (the default is
// $VELORA_DATA_DIR/store.db), waiting at most `busyTimeoutMs` for a lock held
// by another connection.
void useDatabase(const std::string& path, int busyTimeoutMs = 2000);

// currentTimeMillis() answers `ms` from now on, until clearFixedTime(): for
// tests of expiry boundaries, which a moving clock cannot hit exactly.
void fixTimeMillis(int64_t ms);
void clearFixedTime();

// Blocks until every task posted so far to every executor has run.
void waitAllExecutorsIdle();

}  // namespace tern

#endif  // TERN_HOST_CONFIG_H
