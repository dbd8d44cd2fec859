// Copy, fill and compare: the only place that reaches for the memory functions, which are all that
// the module imports. Plain loops of this shape elsewhere may become calls to other functions.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace hx {

inline void copyBytes(void* to, const void* from, uint64_t count) {
  if (count != 0) __builtin_memcpy(to, from, count);
}

inline bool equalBytes(const void* a, const void* b, uint64_t count) {
  const auto* left = static_cast<const uint8_t*>(a);
  const auto* right = static_cast<const uint8_t*>(b);
  for (uint64_t i = 0; i < count; ++i) {
    if (left[i] != right[i]) return false;
  }
  return true;
}

}  // namespace hx
