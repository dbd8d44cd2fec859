#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// The member of that name in a store, of several the newest: an ItemMember or a Store, as its kind
// says. It is not opened; it stays where it is as long as its top-level store is open. Null with
// kNotFound or kNotLocked.
HX_EXPORT Member* hxcrateFindMember(Store* store, const char32_t* name, int32_t length,
                                    int32_t* status);

}  // extern "C"

}  // namespace hx
