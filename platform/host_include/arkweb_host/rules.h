// Host-only: rules the device SDK's headers state for the ArkWeb calls and a
// device does not check. A call that breaks one is refused by the host
// engine, written as an error line (hilog, tag "ArkWeb/host") and counted
// here, so a test can require that none happened:
// - OH_ArkWebHttpBodyStream_Init and _Read off the engine's IO thread (the
//   thread of the scheme handler's callbacks);
// - a read of no bytes (or a negative count), without a buffer, or before
//   the stream has initialized successfully;
// - a member of the component API record used when the record's size field
//   does not hold it.
#ifndef ARKWEB_HOST_RULES_H
#define ARKWEB_HOST_RULES_H

#include <cstdint>
#include <string>

namespace arkweb_host {

struct RuleViolations {
  uint64_t count = 0;
  std::string first;  // what the first of them broke; empty when there was none
};

// The violations since the last call (or since the process started); counting
// starts again from zero. Any thread.
RuleViolations takeRuleViolations();

}  // namespace arkweb_host

#endif  // ARKWEB_HOST_RULES_H
