// Host-only configuration of the SSR gateway client.
#ifndef GANTRY_SSR_HOST_CONFIG_H
#define GANTRY_SSR_HOST_CONFIG_H

#include <string>
#include <vector>

namespace gantry_ssr {

// Replaces the URL prefixes the gateway accepts (empty ones are ignored).
// The first ones come from $VELORA_SSR_RULES (comma-separated).
void setRules(std::vector<std::string> prefixes);
std::vector<std::string> getRules();

}  // namespace gantry_ssr

#endif  // GANTRY_SSR_HOST_CONFIG_H
