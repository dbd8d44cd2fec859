#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// The member after the one of the given name, in table order; the first one for a null or empty
// name. Copies its name (nameOut has room for the longest), its length and its kind (MemberKind).
// When the name is not in the table, goes on with the bucket after its own. Each name comes once:
// of several members of one name only the newest, and a member of the empty name never, since
// neither could serve as the cursor. kOk, kNotFound at the end, or kNotLocked.
HX_EXPORT int32_t hxcrateGetNextMember(Store* store, const char32_t* name, int32_t length,
                                       char32_t* nameOut, int32_t* lengthOut, int32_t* kindOut);

}  // extern "C"

}  // namespace hx
