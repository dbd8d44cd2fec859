// Following an item's records, each once, and only as far as somebody wants to know.
#pragma once

#include "file/item_pages.h"
#include "item/item_view.h"
#include "records/status.h"

namespace hx {

// Makes page `page` known, or finds that the item ends before it: kOk. Takes the lock, and lets go
// of it now and then. What was known before a failure stays known.
Status followTo(ItemView* view, int32_t page);

// One page more, or the item's end. With the lock held, while that has not been met.
Status followOne(ItemView* view);

// The same by the record that was read, as it stands, at `nextRecord`.
Status followRecord(ItemView* view, const DataChunk& record);

}  // namespace hx
