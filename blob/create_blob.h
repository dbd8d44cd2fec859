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

// Gives everything below a store its place and returns the store's fileEnd, a top-level store's
// blob size.
HX_EXPORT int64_t calcBlobSize(Store* store);

// Writes a store's ENTRY, with these links, and everything below it, all of it placed, into a blob
// that has room for it. Returns the offset of the store's ENTRY.
HX_EXPORT int64_t writeDirectoryToBlob(Store* store, void* blob, int64_t parentLink,
                                       int64_t previousLink);

}  // extern "C"

}  // namespace hx
