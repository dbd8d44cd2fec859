// Paths of files, in whatever a program holds them.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "hxcrate/language.hpp"

namespace hxcrate {

// Characters of 8 bits, UTF-8 or as the system gave them: std::string, std::string_view,
// std::filesystem::path, const char*, and the same of char8_t.
template <typename T>
concept PathText = std::convertible_to<const T&, std::string_view> ||
    std::convertible_to<const T&, std::u8string_view> || std::convertible_to<const T&, std::string>;

// A parameter of this type takes any of them.
class FilePath {
 public:
  template <PathText T>
  FilePath(const T& path) : text_(toText(path)) {}  // NOLINT(google-explicit-constructor)

  const std::string& text() const noexcept { return text_; }

 private:
  template <typename T>
  static std::string toText(const T& path) {
    if constexpr (std::convertible_to<const T&, std::u8string_view>) {
      const std::u8string_view characters = path;
      return {characters.begin(), characters.end()};
    } else {
      return std::string(path);
    }
  }

  std::string text_;
};

}  // namespace hxcrate
