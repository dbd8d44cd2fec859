// Names and paths on their way between people and the module. The module takes 32-bit characters:
// a byte of a member name travels as the character of its value, the path of a file as UTF-32.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace hxcrate {

constexpr std::size_t kNameCapacity = 64;  // bytes; the format cuts what is longer

// The components of the member path `path` in the store file `store`, which serves for messages
// alone. Throws badName unless each is one to 64 bytes without a NUL.
std::vector<std::string_view> splitMemberPath(const std::string& store, std::string_view path);

// The characters of a member name, and the bytes again. A character above 255 is none of ours: it
// throws damaged.
std::u32string widenName(std::string_view name);
std::string narrowName(const std::string& store, std::u32string_view name);

// A store file's path, absolute: the module keeps it for later opens and for removing the file, and
// the working directory may have changed by then. Throws badName unless it is UTF-8 without
// a NUL, and at most 1024 characters.
std::u32string decodeFilePath(const std::string& path);

}  // namespace hxcrate
