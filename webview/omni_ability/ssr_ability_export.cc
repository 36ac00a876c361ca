// The ability framework finds the SSR ability by these two symbols.
#include "omni_ability/ssr_ability_impl.h"

#define VELORA_EXPORT extern "C" __attribute__((visibility("default")))

VELORA_EXPORT omni::Ability* create_SSRAbility() {
  return new velora::SSRAbility();
}

VELORA_EXPORT void destroy_SSRAbility(omni::Ability* ability) {
  delete ability;
}
