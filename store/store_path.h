#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Copies the full path of the tree's open file, as the host resolved it, without a terminator.
// `length` holds the room in `buffer` in characters, and then how many were copied: 0 for a store
// without an open file. Takes no lock. Always kOk.
HX_EXPORT int32_t hxcratePath(Store* store, char32_t* buffer, int32_t* length);

}  // extern "C"

}  // namespace hx
