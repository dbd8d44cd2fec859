#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Copies up to `length` bytes from the handle's position on into `buffer` and returns how many it
// put there; they count whatever the status is. What lies behind them is left as it was unless the
// status is kUnreadable. With a conversion argument, which goes to the host's converters as it is,
// bytes of another encoding are converted: `length` and the result then count converted bytes, the
// position stored ones.
// kOk when the request was filled; kEndOfItem when the item ends before; kNotLocked, kNoMemory,
// kUnreadable or kFileNotOpen when the next page can't be had; kNoMemory when bytes can't be
// converted, or when the handle was opened neither for reading nor for update.
HX_EXPORT uint32_t hxcrateRead(ItemHandle* handle, void* buffer, int32_t length,
                               void* conversionArgument, int32_t* status);

}  // extern "C"

}  // namespace hx
