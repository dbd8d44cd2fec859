#include "host/linux/path_codec.h"

#include <array>

#include "host/file_io.h"

namespace hxhost {
namespace {

// A byte of a path that is part of no character travels as the one of these that ends in its value.
constexpr char32_t kLoneByte = 0xdc00;

bool isLoneByte(char32_t character) {
  return character >= kLoneByte + 0x80 && character <= kLoneByte + 0xff;
}

bool isScalar(char32_t character) {
  return character < 0xd800 || (character > 0xdfff && character <= 0x10ffff);
}

void appendUtf8(std::string& out, char32_t character) {
  const auto put = [&out](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (isLoneByte(character)) return put(character - kLoneByte);
  const auto putTail = [&](int shift) { put(0x80 | ((character >> shift) & 0x3f)); };
  if (character < 0x80) return put(character);
  if (character < 0x800) {
    put(0xc0 | (character >> 6));
  } else if (character < 0x10000) {
    put(0xe0 | (character >> 12));
    putTail(6);
  } else {
    put(0xf0 | (character >> 18));
    putTail(12);
    putTail(6);
  }
  putTail(0);
}

// How many bytes a character of that first byte takes; 0 when none begins so.
size_t sequenceLength(uint8_t first) {
  if (first < 0x80) return 1;
  if (first >= 0xc2 && first < 0xe0) return 2;
  if (first >= 0xe0 && first < 0xf0) return 3;
  if (first >= 0xf0 && first < 0xf5) return 4;
  return 0;
}

// The character that `bytes` hold and nothing else.
std::optional<char32_t> decodeSequence(std::string_view bytes) {
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const size_t length = bytes.size();
  if (length == 0 || length != sequenceLength(static_cast<uint8_t>(bytes[0]))) return std::nullopt;
  char32_t character = static_cast<uint8_t>(bytes[0]);
  if (length > 1) character &= 0x7fu >> length;
  for (const char tail : bytes.substr(1)) {
    const auto byte = static_cast<uint8_t>(tail);
    if ((byte & 0xc0) != 0x80) return std::nullopt;
    character = character << 6 | (byte & 0x3f);
  }
  if (character < kSmallest[length] || !isScalar(character)) return std::nullopt;
  return character;
}

}  // namespace

std::optional<std::string> encodePath(const char32_t* path, int64_t length) {
  if (path == nullptr || length < 1 || length > hx::HX_PATH_CAPACITY) return std::nullopt;
  std::string encoded;
  for (int64_t i = 0; i < length; ++i) {
    if (path[i] == 0 || (!isScalar(path[i]) && !isLoneByte(path[i]))) return std::nullopt;
    appendUtf8(encoded, path[i]);
  }
  return encoded;
}

std::u32string decodePath(std::string_view path) {
  std::u32string decoded;
  while (!path.empty()) {
    const auto lead = static_cast<uint8_t>(path[0]);
    const std::string_view sequence = path.substr(0, sequenceLength(lead));
    const auto character = decodeSequence(sequence);
    decoded.push_back(character.value_or(kLoneByte + lead));
    path.remove_prefix(character ? sequence.size() : 1);
  }
  return decoded;
}

}  // namespace hxhost
