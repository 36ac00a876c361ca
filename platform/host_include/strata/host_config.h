// Host-only control of the offline-package library.
#ifndef STRATA_HOST_CONFIG_H
#define STRATA_HOST_CONFIG_H

namespace StrataCore {

// Holds lookups queued (unanswered) until resumeLookups(), for tools that
// change many packages at once and for tests.
void pauseLookups();
void resumeLookups();

}  // namespace StrataCore

#endif  // STRATA_HOST_CONFIG_H
