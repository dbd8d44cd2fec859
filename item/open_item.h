#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Opens the item at a path below a store (or below the top-level store that is the path's first
// component, when `store` is null): with kRead for reading from its start, with kUpdate for
// appending, with kUpdate and kCreate created when it does not exist. Any number of readers, or one
// writer. The handle needs its top-level store to stay open until it is closed.
// Null comes with a negative status.
HX_EXPORT ItemHandle* hxcrateOpenItem(ExtensionInstance* instance, Store* store,
                                      const char32_t* name, int32_t length, uint32_t flags,
                                      int32_t* status);

// Ends a handle. The writer's last page goes into the file, and the last handle's pages leave
// memory. Returns the lock's answer: when it could not be taken, nothing changed and the handle is
// still open.
HX_EXPORT int32_t hxcrateCloseItem(ItemHandle* handle);

}  // extern "C"

}  // namespace hx
