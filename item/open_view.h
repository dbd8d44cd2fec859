#pragma once

#include "item/item_view.h"
#include "records/export.h"
#include "records/name.h"
#include "records/status.h"

namespace hx {

extern "C" {

// Opens an existing item for reading at any place; the path as for hxcrateOpenItem. It counts as a
// reader, and its top-level store stays open until it is closed. No record of the item is read yet.
// Null comes with a negative status.
HX_EXPORT ItemView* hxcrateOpenView(ExtensionInstance* instance, Store* store, const char32_t* name,
                                    int32_t length, int32_t* status);

// Ends a view, which no thread uses any more. Returns the lock's answer: when it could not be
// taken, nothing changed and the view is still open.
HX_EXPORT int32_t hxcrateCloseView(ItemView* view);

// The item's length in bytes; follows its records to the end when nobody has yet. -1 comes with a
// negative status.
HX_EXPORT int64_t hxcrateSizeOfView(ItemView* view, int32_t* status);

// The same of an item that may be closed, or written to by somebody: what it has by now.
HX_EXPORT int64_t hxcrateSizeOfItem(ItemMember* item, int32_t* status);

}  // extern "C"

// Counts a view in that begins as zero bytes, with the lock held.
Status enterView(ItemView* view, ItemMember* item);

// Counts it out, with the lock held.
void leaveView(ItemView* view);

// The item of that name in a store, with the lock held.
Status findItem(Store* store, Name name, ItemMember** item);

}  // namespace hx
