#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Appends bytes through the writer's handle and returns how many the item took, which count even
// when the status is not kOk: kNoMemory when a page could not be added, when the item has reached
// its limit of 2,147,483,647 bytes, or when the handle is not the writer's; kNotLocked when a page
// was full and the lock could not be taken (a later write goes on there).
HX_EXPORT int32_t hxcrateWrite(ItemHandle* handle, const void* buffer, int32_t length,
                               int32_t* status);

}  // extern "C"

}  // namespace hx
