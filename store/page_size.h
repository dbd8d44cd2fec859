#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Sets the page size of a store, in bytes, unless it has one. Works on a new top-level store before
// anything was opened in it; pages are sized by the top-level store's. Takes no lock. kOk, or
// kPageSizeFixed.
HX_EXPORT int32_t hxcrateSetPageSize(Store* store, int32_t size);

}  // extern "C"

// Gives a store the default page size unless it has one. Needs no lock.
void fixPageSize(Store* store);

}  // namespace hx
