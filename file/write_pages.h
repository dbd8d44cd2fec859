#pragma once

#include "file/image.h"
#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Writes an item's dirty pages and their records into the tree's open file, gives them space where
// they have none yet, and marks them clean. A new item without a byte gets its all-zero record.
// The caller holds the instance's lock.
HX_EXPORT void writeItem(ItemMember* item);

}  // extern "C"

// The same into an image; into a blob all of them, which are already placed and stay dirty.
void writePages(ItemMember* item, const Image& image);

}  // namespace hx
