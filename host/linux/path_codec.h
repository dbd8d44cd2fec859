// Paths are 32-bit characters outside and UTF-8 on disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace hxhost {

// The path as the disk knows it; nothing when it can't be one: null, a length below 1 or above 1024
// characters, a zero character, a surrogate, a code point above 0x10FFFF. May throw std::bad_alloc.
std::optional<std::string> encodePath(const char32_t* path, int64_t length);

// A path for a message, whatever it holds: what can't be shown becomes U+FFFD, and what is longer
// than 1024 characters is cut. May throw std::bad_alloc.
std::string describePath(const char32_t* path, int64_t length);

// The characters of strict UTF-8 (nothing overlong, no surrogate), or nothing. May throw
// std::bad_alloc.
std::optional<std::u32string> decodePath(std::string_view path);

}  // namespace hxhost
