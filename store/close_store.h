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

}  // extern "C"

}  // namespace hx
