#pragma once

#include "item/item_view.h"
#include "records/export.h"

namespace hx {

extern "C" {

// Copies up to `length` bytes of the item from `offset` on into `buffer` and returns how many it
// put there; they count whatever the status is. The buffer behind them may have been written to.
// kOk when all of them are there; kEndOfItem when the item ends before, or `offset` is negative;
// kNotLocked, kNoMemory, kUnreadable or kFileNotOpen when the next ones can't be had. Several
// threads may call it at once.
HX_EXPORT int32_t hxcrateReadAt(ItemView* view, int64_t offset, void* buffer, int32_t length,
                                int32_t* status);

// Where the byte at `offset` lies in memory, and in `count` how many bytes of the item lie there
// from it on: at most the rest of its page. Valid until the view, or the store that was opened from
// the blob, is closed. Null with kOk when it lies in a file; null with a status as above.
HX_EXPORT const void* hxcrateBytesAt(ItemView* view, int64_t offset, int64_t* count,
                                     int32_t* status);

// Reads an item of one page into `buffer` without opening it, in one call of the host, and returns
// how many bytes that are: all of them, which `size` tells. Where that can't be, `size` is -1 with
// kOk, and the item is to be opened: it is longer than that, or than `capacity`, or lies where
// bytes are read under the lock only. Else a status as that of hxcrateOpenItem. The buffer behind
// the bytes may have been written to.
HX_EXPORT int32_t hxcrateReadItem(ExtensionInstance* instance, Store* store, const char32_t* name,
                                  int32_t length, void* buffer, int32_t capacity, int64_t* size,
                                  int32_t* status);

}  // extern "C"

}  // namespace hx
