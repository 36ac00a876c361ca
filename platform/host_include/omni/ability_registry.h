// The framework side of the ability framework: where abilities are found.
#ifndef OMNI_ABILITY_REGISTRY_H
#define OMNI_ABILITY_REGISTRY_H

#include <memory>
#include <string>

#include "omni/ability.h"

namespace omni {

// Abilities by name. A library offers ability NAME by exporting the C
// functions create_NAME() and destroy_NAME(Ability*); loadAbility finds them
// the way the device framework does.
class AbilityRegistry {
 public:
  // Loads `library` (a path; "" for the symbols already in this process) and
  // registers NAME from its create_/destroy_ pair. False, with a log line,
  // when the library or the pair is missing. A name loaded before is kept.
  static bool loadAbility(const std::string& library, const std::string& name);
  // Registers (or replaces, with null: removes) an ability object.
  static void registerAbility(const std::string& name, std::shared_ptr<Ability> ability);
  static std::shared_ptr<Ability> find(const std::string& name);
};

}  // namespace omni

#endif  // OMNI_ABILITY_REGISTRY_H
