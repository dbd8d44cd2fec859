// Hands out the space of a file, or the places of a blob. The state lives on the top-level store,
// whatever store of the tree is passed. Takes no lock: callers hold the instance's, or keep every
// other thread away from the tree.
#pragma once

#include "records/records.h"

namespace hx {

// The offset of `length` bytes that now belong to the caller: a released extent of exactly that
// length, the newest first, else the end of the file. Never fails, never 0.
int64_t allocateDiskSpace(Store* store, int32_t length);

// Lets an extent be handed out again. It is forgotten when the pool has no memory to remember it.
void releaseDiskSpace(Store* store, int64_t offset, int32_t length);

// Frees the list of released extents.
void releaseFreeList(Store* root);

}  // namespace hx
