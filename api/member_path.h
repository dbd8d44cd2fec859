// Names and paths on their way between people and the module. The module takes 32-bit characters:
// a byte of a member name travels as the character of its value, the path of a file as UTF-32.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "hxcrate/store.hpp"
#include "records/records.h"

namespace hxcrate {

// Why the member path `path` can't be kept as it is: one of its components, which have "/" between
// them, is empty, longer than kNameCapacity or holds a NUL. Empty when it can.
std::string findPathFault(std::string_view path);

// The characters of a member name of at most kNameCapacity bytes.
class WideName {
 public:
  explicit WideName(std::string_view name) noexcept;

  const char32_t* characters() const { return characters_; }
  std::int32_t length() const { return length_; }

 private:
  char32_t characters_[kNameCapacity];
  std::int32_t length_;
};

// The same for a name of any length.
std::u32string widenName(std::string_view name);

// The name of a Store, an ItemMember or the Member that both begin as.
template <typename Record>
std::u32string_view nameOf(const Record& record) {
  return {record.name, static_cast<std::size_t>(record.nameLength)};
}

// The bytes of a member name, into a string that keeps its memory. No name in an instance of ours
// has a character above 255.
void narrowName(std::u32string_view name, std::string& bytes);

// The path inside its top-level store, from the records; empty for the top-level store itself.
std::string pathOf(const hx::Store& store);
std::string pathOf(const hx::ItemMember& item);

// The path of what `path` names inside the store at `place`.
std::string join(const std::string& place, std::string_view path);

// A store file's path, absolute: the module keeps it for later opens and for removing the file, and
// the working directory may have changed by then. Throws badName when it
// is empty or holds a NUL, nameTooLong when it has over 1024 characters.
std::u32string decodeFilePath(const std::string& path);

}  // namespace hxcrate
