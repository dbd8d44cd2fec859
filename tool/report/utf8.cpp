#include "utf8.h"

namespace tool {

std::size_t measureCharacter(std::string_view text) {
  const auto byteAt = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const auto follows = [&](std::size_t i) { return (byteAt(i) & 0xc0) == 0x80; };
  if (text.empty()) return 0;
  const unsigned lead = byteAt(0);
  const unsigned second = byteAt(1);
  if (lead < 0x80) return 1;
  if (!follows(1)) return 0;
  if (lead >= 0xc2 && lead <= 0xdf) return 2;
  if (!follows(2)) return 0;
  const bool overlongOrSurrogate =
      (lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f);
  if (lead >= 0xe0 && lead <= 0xef) return overlongOrSurrogate ? 0 : 3;
  if (!follows(3)) return 0;
  const bool outOfRange = (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f);
  return lead >= 0xf0 && lead <= 0xf4 && !outOfRange ? 4 : 0;
}

bool isControl(std::string_view text, std::size_t length) {
  const auto last = static_cast<unsigned char>(text[length - 1]);
  if (length == 1) return last < 0x20 || last == 0x7f;
  return length == 2 && text[0] == '\xc2' && last < 0xa0;
}

bool isDeceptive(std::string_view text, std::size_t length) {
  const std::string_view character = text.substr(0, length);
  if (character == "\u061c" || character == "\u200b" || character == "\ufeff") return true;
  const auto isBetween = [&](std::string_view first, std::string_view last) {
    return length == 3 && first <= character && character <= last;
  };
  return isBetween("\u200e", "\u200f") || isBetween("\u2028", "\u202e") ||
         isBetween("\u2060", "\u2069") || isBetween("\ufffe", "\uffff");
}

char32_t decodeCharacter(std::string_view text, std::size_t length) {
  const auto lead = static_cast<unsigned char>(text[0]);
  char32_t number = length == 1 ? lead : lead & (0xffu >> (length + 1));
  for (std::size_t i = 1; i < length; ++i)
    number = number << 6 | (static_cast<unsigned char>(text[i]) & 0x3fu);
  return number;
}

}  // namespace tool
