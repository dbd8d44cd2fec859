// Opens a store from a blob: read-only, without copying a page.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// A store over `size` bytes at `blob`, which stay the caller's and unchanged until the store is
// closed; item pages point into them. The store gets the given name, is in no table, and is gone
// when it is closed. kUpdate, kReplace and kExclusive are refused with kContradiction; the other
// flags mean nothing here. Takes no lock. Null with kUnreadable or kNoMemory leaves nothing behind.
HX_EXPORT Store* hxcrateOpenStoreFromMemory(ExtensionInstance* instance, const void* blob,
                                            uint64_t size, const char32_t* name, int32_t length,
                                            uint32_t flags, int32_t* status);

}  // extern "C"

}  // namespace hx
