// Entry point of the ArkWeb native APIs.
#ifndef ARKWEB_INTERFACE_H
#define ARKWEB_INTERFACE_H

#include <stdint.h>

#include "web/arkweb_type.h"

#ifdef __cplusplus
extern "C" {
#endif

// Returns the engine-owned API record of the given kind (same pointer on every
// call, never freed), or NULL when the kind is not supported. UI thread.
ArkWeb_AnyNativeAPI* OH_ArkWeb_GetNativeAPI(ArkWeb_NativeAPIVariantKind type);

// True when the record pointed to by s is large enough to hold member f.
#define ARKWEB_MEMBER_EXISTS(s, f) \
  ((intptr_t) & ((s)->f) - (intptr_t)(s) + sizeof((s)->f) <= *((size_t*)(s)))

// True when the record s is too small to hold member f, or f is NULL. s itself
// must not be NULL.
#define ARKWEB_MEMBER_MISSING(s, f) (!ARKWEB_MEMBER_EXISTS(s, f) || !((s)->f))

#ifdef __cplusplus
}
#endif

#endif  // ARKWEB_INTERFACE_H
