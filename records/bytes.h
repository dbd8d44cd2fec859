// Copy, fill and compare: the only place that reaches for the memory functions, which are all that
// the module imports. Plain loops of this shape elsewhere may become calls to other functions.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace hx {

// By memmove, though nothing overlaps: of memcpy the C library keeps an old version, which is what
// a module that names no version is given, and which makes the reading of a blob take 1.4 times as
// long.
inline void copyBytes(void* to, const void* from, uint64_t count) {
  if (count != 0) __builtin_memmove(to, from, count);
}

inline bool equalBytes(const void* a, const void* b, uint64_t count) {
  const auto* left = static_cast<const uint8_t*>(a);
  const auto* right = static_cast<const uint8_t*>(b);
  uint64_t i = 0;
  // By words: identities are compared for every record that is read.
  for (uint64_t x = 0, y = 0; i + sizeof(x) <= count; i += sizeof(x)) {
    copyBytes(&x, left + i, sizeof(x));
    copyBytes(&y, right + i, sizeof(y));
    if (x != y) return false;
  }
  for (; i < count; ++i) {
    if (left[i] != right[i]) return false;
  }
  return true;
}

}  // namespace hx
