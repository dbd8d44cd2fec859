// The index beside the chains of a large table: an open-addressing table from the whole hash of a
// name to its member, probed one slot after the other.
//
//   1. A member's slot lies at or behind the home of its hash, with no empty slot between.
//   2. Members of equal hash lie in the order of their chain, newest first.
//   3. At least one slot is empty, so that every probe ends.
//
// Callers hold the instance's lock.
#pragma once

#include "store/name.h"
#include "store/records.h"

namespace hx {

// The newest member of that name, or null. The index exists.
Member* findInIndex(const MemberIndex& index, uint32_t hash, Name name);

// Takes note of a member that was put at the head of its chain and is counted in `memberCount`.
// Makes the index when the table has become large, and makes it larger. When the pool refuses the
// memory for it, what there was goes on serving, and in the end the chains alone.
void addToIndex(MemberIndex& index, const MemberTable& table, Pool* pool, Member* member);

// Forgets a listed member.
void removeFromIndex(MemberIndex& index, Member* member);

// Goes back to the chains alone and frees the index's memory.
void freeIndex(MemberIndex& index, Pool* pool);

// The hash of a listed member's name.
uint32_t& hashOf(Member* member);

}  // namespace hx
