// Reversing the order of bytes: of the elements of an array and of the fields of a record.
#pragma once

#include <cstdint>

#include "host/encoding.h"

namespace hxhost {

// Reverses the bytes of each whole element of `width` (1, 2, 4 or 8) bytes, in place. Bytes behind
// the last whole element stay.
void swapElements(uint8_t* bytes, int64_t length, int64_t width);

// Reverses the bytes of the integer fields of a record, in place. False, and the record untouched,
// unless the map's fields cover exactly `length` bytes. No more of the map is read than needed to
// see that, so that even a map that never ends is safe.
bool swapRecord(uint8_t* record, int64_t length, const hx::RecordMapEntry* map);

}  // namespace hxhost
