// The count of rule violations behind arkweb_host/rules.h.
#include <mutex>

#include "arkweb/engine_internal.h"
#include "arkweb_host/rules.h"
#include "hilog/log.h"

namespace arkweb_host {
namespace {

struct Violations {
  std::mutex mutex;
  RuleViolations taken;  // guarded by mutex
};

Violations& violations() {
  static Violations* instance = new Violations();  // reported into until exit
  return *instance;
}

}  // namespace

void reportRuleViolation(const std::string& what) {
  OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kEngineLogTag, "rule violation: %{public}s", what.c_str());
  Violations& all = violations();
  std::lock_guard<std::mutex> lock(all.mutex);
  if (all.taken.count++ == 0)
    all.taken.first = what;
}

RuleViolations takeRuleViolations() {
  Violations& all = violations();
  std::lock_guard<std::mutex> lock(all.mutex);
  RuleViolations taken = std::move(all.taken);
  all.taken = RuleViolations();
  return taken;
}

}  // namespace arkweb_host
