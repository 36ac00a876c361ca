// Host-only configuration of the remote-configuration library.
#ifndef TESSERA_HOST_CONFIG_H
#define TESSERA_HOST_CONFIG_H

#include <string>

namespace tessera {

// Values come from the JSON file `path` from now on (applied at once; the
// listeners of changed namespaces are called).
void useConfigFile(const std::string& path);

}  // namespace tessera

#endif  // TESSERA_HOST_CONFIG_H
