#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Counts one opener off. The last one of a store that was open for update writes header and
// directory and closes the file; the last reader closes the file. The store stays cached, unless it
// was opened from a blob: then it is gone. Nothing happens when the lock can't be taken.
HX_EXPORT void hxcrateCloseStore(Store* store);

// Counts one opener off; the last one of a top-level store removes its file, if it has had one, and
// the store with everything below it. A nested store is never deleted.
HX_EXPORT void hxcrateCloseAndDeleteStore(Store* store);

// Writes header and directory into the file of a tree that is open for update, as its last close
// would, and leaves it open. The caller holds the instance's lock. kOk, or kContradiction when
// there is no such file.
HX_EXPORT int32_t hxcrateWriteBack(Store* store);

// Drops the closed top-level store of that name from memory, if there is one; its file stays. A
// store that is open, or has an item open, stays too.
HX_EXPORT void hxcrateForgetStore(ExtensionInstance* instance, const char32_t* name,
                                  int32_t length);

}  // extern "C"

}  // namespace hx
