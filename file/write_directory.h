#pragma once

#include "file/image.h"
#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Writes what must change of the directory of a store and everything below it into the tree's open
// file, the items' dirty pages included, and returns the offset of the store's own ENTRY, which is
// already placed. The links go into that ENTRY, 0 and 0 for a top-level store. The caller holds
// the instance's lock.
HX_EXPORT int64_t writeDirectory(Store* store, int64_t parentLink, int64_t previousLink);

}  // extern "C"

// Gives a member its place in the file, unless it has one: the ENTRY, and an item's first record.
void placeMember(Member* member, Store* container);

// The same as writeDirectory into an image; into a blob every ENTRY and every page.
int64_t writeTree(Store* top, const Image& image, int64_t parentLink, int64_t previousLink);

}  // namespace hx
