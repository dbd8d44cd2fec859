// Names of members: 32-bit characters with a length and no terminator.
#pragma once

#include "records/bytes.h"
#include "records/records.h"

namespace hx {

// A view of somebody's characters. The empty name is null and 0.
struct Name {
  const char32_t* characters;
  int32_t length;
};

// A name as a caller passes it; a negative length is an empty name.
constexpr Name makeName(const char32_t* characters, int32_t length) {
  if (characters == nullptr || length <= 0) return {nullptr, 0};
  return {characters, length};
}

inline Name nameOf(const Member* member) {
  return makeName(member->name, member->nameLength);
}
inline Name nameOf(const Store* store) {
  return makeName(store->name, store->nameLength);
}

inline uint64_t byteCount(Name name) {
  return static_cast<uint64_t>(name.length) * sizeof(char32_t);
}

inline bool equalNames(Name a, Name b) {
  if (a.length != b.length) return false;
  return a.characters == b.characters || equalBytes(a.characters, b.characters, byteCount(a));
}

// The characters from `start` on.
constexpr Name tailOf(Name name, int32_t start) {
  return makeName(name.characters + start, name.length - start);
}

// Where the first "/" stands, or -1.
constexpr int32_t findSlash(Name name) {
  for (int32_t i = 0; i < name.length; ++i) {
    if (name.characters[i] == U'/') return i;
  }
  return -1;
}

// The last component of a path: what follows its last slash, colon or backslash.
constexpr Name lastComponent(Name path) {
  for (int32_t i = path.length; i > 0; --i) {
    const char32_t character = path.characters[i - 1];
    if (character == U'/' || character == U':' || character == U'\\') return tailOf(path, i);
  }
  return path;
}

// Add, shift-add, shift-xor for each character, without a final mix; files of all ages rely on the
// order of members that it gives.
constexpr uint32_t hashName(Name name) {
  uint32_t hash = 0;
  for (int32_t i = 0; i < name.length; ++i) {
    hash += static_cast<uint32_t>(name.characters[i]);
    hash += hash << 10;
    hash ^= hash >> 6;
  }
  return hash;
}

constexpr int32_t bucketOf(Name name) {
  return static_cast<int32_t>(hashName(name) % static_cast<uint32_t>(kBucketCount));
}

}  // namespace hx
