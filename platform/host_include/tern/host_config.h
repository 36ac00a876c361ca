// Host-only configuration of the base library.
#ifndef TERN_HOST_CONFIG_H
#define TERN_HOST_CONFIG_H

#include <string>

namespace tern {

// The stores use the database file at `path` from now on (the default is
// $VELORA_DATA_DIR/store.db), waiting at most `busyTimeoutMs` for a lock held
// by another connection.
void useDatabase(const std::string& path, int busyTimeoutMs = 2000);

}  // namespace tern

#endif  // TERN_HOST_CONFIG_H
