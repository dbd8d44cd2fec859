// Paths are 32-bit characters outside and bytes on disk, which are UTF-8 as a rule. A byte that is
// part of no character, 80 to FF, is U+DC80 to U+DCFF outside, so that every path has a form there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace hxhost {

// The path as the disk knows it; nothing when it can't be one: null, a length below 1 or above 1024
// characters, a zero character, another surrogate, a code point above 0x10FFFF. May throw
// std::bad_alloc.
std::optional<std::string> encodePath(const char32_t* path, int64_t length);

// The characters of those bytes; only strict UTF-8 (nothing overlong, no surrogate) is one. Encoded
// they are the same bytes again. May throw std::bad_alloc.
std::u32string decodePath(std::string_view path);

}  // namespace hxhost
