// Zero-filled memory from the system, for the pools.
#pragma once

#include <cstddef>

namespace hxhost {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kUnderAddressSanitizer = true;
#elif defined(__has_feature)
inline constexpr bool kUnderAddressSanitizer = __has_feature(address_sanitizer);
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif

// `bytes` zero bytes aligned to 16, or null. Fresh pages are not touched.
void* takeSystemMemory(size_t bytes) noexcept;

// Gives back what takeSystemMemory gave, all of it.
void giveBackSystemMemory(void* memory, size_t bytes) noexcept;

}  // namespace hxhost
