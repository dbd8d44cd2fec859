#pragma once

#include "file/image.h"
#include "records/records.h"

namespace hx {

// Gives a member its place in the file, unless it has one: the ENTRY, and an item's first record.
void placeMember(Member* member, Store* container);

// Writes the directory of a store, whose own ENTRY is placed and gets these links (0 and 0 for a
// top-level store), and of everything below it, the items' pages included: into a file what must
// change, into a blob every ENTRY and every page. The caller holds the instance's lock, or keeps
// every other thread away from the tree.
void writeTree(Store* top, const Image& image, int64_t parentLink, int64_t previousLink);

}  // namespace hx
