// Host-only control of the offline-package library.
#ifndef STRATA_HOST_CONFIG_H
#define STRATA_HOST_CONFIG_H

#include <string>

#include "strata/strata_core.h"

namespace StrataCore {

// Reads and checks the package at `path` (folder or .zip) as install would,
// without installing it. False with `error` set when it would be refused.
bool inspectPackage(const std::string& path, PackageInfo* info, std::string* error);

// Uses the packages folder `dir` from now on (the first one is
// $VELORA_PACKAGES_DIR) and indexes it.
void usePackagesDir(const std::string& dir);

// Holds lookups queued (unanswered) until resumeLookups(), for tools that
// change many packages at once and for tests.
void pauseLookups();
void resumeLookups();

}  // namespace StrataCore

#endif  // STRATA_HOST_CONFIG_H
