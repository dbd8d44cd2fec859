// What a reader passes as the conversion argument of an item's read: it says what the item's bytes
// are, so that the converters of this host can turn them into the reader's byte order. Plain C.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
namespace hx {
extern "C" {
#endif

// The value of a kind is the width of its elements in bytes.
enum {
  HX_CONVERT_TEXT = 1,       // characters of 8 bits: delivered as they are stored
  HX_CONVERT_ELEMENTS2 = 2,  // 16-bit elements, the order of each one's bytes reversed
  HX_CONVERT_ELEMENTS4 = 4,
  HX_CONVERT_ELEMENTS8 = 8
};

// Elements are counted from the byte at which a read begins. A read asks for whole elements only: a
// buffer of 10 bytes gets two elements of 4, the position moves by 8, and the next read goes on
// with the third. A buffer shorter than one element fails and moves nothing. When the item ends
// within an element, the bytes that are there are delivered behind the whole elements, in their
// stored order: a count that is no multiple of the width tells of them.
typedef struct ItemConversion {
  int32_t kind;      // HX_CONVERT_; any other value fails the read
  int32_t reserved;  // 0
} ItemConversion;

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(ItemConversion) == 8);
}  // namespace hx
#endif
