#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Opens the file at a path (for update when `flags` has kUpdate), reads its header and directory
// and enters the store into the instance's table; the caller sets its openCount. A directory that
// could be read only in part leaves kNoMemory or kUnreadable as status and loadStatus, and the
// store is returned all the same.
// Null: status unchanged or kOk when there is no store (the file does not open or is shorter than a
// header), kNoMemory, or kUnreadable. With kExclusive an existing store gives kExists and an empty
// record in no table, which the caller frees. The caller holds the instance's lock.
HX_EXPORT Store* loadItemStore(ExtensionInstance* instance, const char32_t* path,
                               int32_t pathLength, uint32_t flags, int32_t* status);

}  // extern "C"

}  // namespace hx
