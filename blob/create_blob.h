// Serialises a store that lives in memory into one buffer, byte for byte the file that it would
// have. None of this takes the lock: the caller keeps every other thread away from the tree.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// The blob of a top-level store that was created with kNoFile and never had a file, from the
// caller's pool and the caller's to free; its size in bytes goes to `size`. Null for any other
// store, with `size` untouched, and when the pool has no memory. The store stays as it is, for
// further writes and further blobs, and so do the places that were handed out.
HX_EXPORT void* hxcrateCreateBlobFromStore(Store* store, uint64_t* size, Pool* pool);

}  // extern "C"

// Gives everything below a store its place, pages included.
void placeTree(Store* store);

}  // namespace hx
