// Builds a tree's stores and items from the directory of its file or its blob. Items' bytes stay
// where they are until the items are opened.
#pragma once

#include "store/export.h"
#include "store/records.h"

namespace hx {

extern "C" {

// Reads the directory of `store`, whose directoryOffset is set, from the tree's open file, enters
// the store itself into `table` and builds everything below it. Status: kOk, or kNoMemory or
// kUnreadable where it had to stop; what was built until then stays.
HX_EXPORT void loadDirectory(Store* store, MemberTable* table, int32_t* status);

}  // extern "C"

// The members below `store`, to any depth, by its ENTRY at directoryOffset; its own name and place
// in a table are the caller's business if it is the tree's top. Works in bounded time on any bytes:
// a directory never has more entries than the file or blob has room for.
int32_t loadMembers(Store* store);

}  // namespace hx
