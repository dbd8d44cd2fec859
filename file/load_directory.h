// Builds a tree's stores and items from the directory of its file or its blob. Items' bytes stay
// where they are until the items are opened.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Reads the directory of `store`, whose directoryOffset is set, from the tree's file or blob,
// enters the store itself into `table`, its container's (but for the top of a blob's tree), and
// builds everything below it, to any depth and in bounded time whatever the bytes. Status: kOk, or
// kNoMemory or kUnreadable where it had to stop; what was built until then stays.
HX_EXPORT void loadDirectory(Store* store, MemberTable* table, int32_t* status);

}  // extern "C"

}  // namespace hx
