#pragma once

#include "file/image.h"
#include "records/records.h"

namespace hx {

// Writes an item's dirty pages and their records into the image, gives them space where they have
// none yet, and marks them clean; into a blob all of them, which are placed and stay dirty. A new
// item without a byte gets its all-zero record. The caller holds the instance's lock, or keeps
// every other thread away from the tree.
void writePages(ItemMember* item, const Image& image);

}  // namespace hx
