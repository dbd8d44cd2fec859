#pragma once

#include "records/records.h"

namespace hx {

// Whether something leads behind the end of the file of a tree that was just loaded. Then somebody
// has cut the file short, and what an update adds would come to lie where the rest of a page was.
// An ENTRY at the very end of the file says that it was not cut; else the items' records are read,
// up to kMostRecordsLookedAt of them: what is behind those is not seen.
bool isCutShort(Store* root);

constexpr int32_t kMostRecordsLookedAt = 4096;

}  // namespace hx
