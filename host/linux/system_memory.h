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

// When the system finds pages for fresh memory: all at once, which costs less than half for each of
// them, or each when it is first used.
enum class Touch { now, onUse };

// `bytes` zero bytes aligned to 16, or null.
void* takeSystemMemory(size_t bytes, Touch touch) noexcept;

// Gives back what takeSystemMemory gave, all of it.
void giveBackSystemMemory(void* memory, size_t bytes) noexcept;

}  // namespace hxhost
