// Records, blocks and names from the instance's pool, always zero-filled.
#pragma once

#include "host/kernel.h"
#include "records/name.h"

namespace hx {

inline void* allocateBlock(Pool* pool, uint64_t size) {
  return pool->allocate(pool, size, HX_ALLOCATE_ZEROED);
}

// A zeroed record, or null.
template <typename Record>
Record* allocateRecord(Pool* pool) {
  return static_cast<Record*>(allocateBlock(pool, sizeof(Record)));
}

inline void freeBlock(Pool* pool, void* block) {
  if (block != nullptr) pool->free(pool, block);
}

// Gives a member, which has none yet, room for a name of `length` characters; an empty name needs
// no block. False when memory runs out.
inline bool allocateName(Pool* pool, Member* member, int32_t length) {
  if (length == 0) return true;
  const uint64_t size = static_cast<uint64_t>(length) * sizeof(char32_t);
  member->name = static_cast<char32_t*>(allocateBlock(pool, size));
  if (member->name == nullptr) return false;
  member->nameLength = length;
  return true;
}

// Gives a member an own copy of a name. False when memory runs out.
inline bool copyName(Pool* pool, Member* member, Name name) {
  if (!allocateName(pool, member, name.length)) return false;
  copyBytes(member->name, name.characters, byteCount(name));
  return true;
}

}  // namespace hx
