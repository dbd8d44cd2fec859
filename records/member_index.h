// The index beside the chains of a large table: an open-addressing table from the whole hash of a
// name to its member, probed one slot after the other.
//
//   1. A member's slot lies at or behind the home of its hash, with no empty slot between.
//   2. Members of equal hash lie in the order of their chain, newest first.
//   3. At least one slot is empty, so that every probe ends.
//
// Callers hold the instance's lock.
#pragma once

#include "records/name.h"
#include "records/records.h"

namespace hx {

// Makes the index of a table that is large and has none. When the pool refuses the memory the
// chains serve alone. Called where members were loaded and where they are opened, which may fail
// for want of memory anyway; an enumeration takes none.
void prepareIndex(MemberIndex& index, const MemberTable& table, Pool* pool);

// The newest member of that name, or null. The index exists.
Member* findInIndex(const MemberIndex& index, uint32_t hash, Name name);

// Takes note of a member that was put at the head of its chain and is counted in `memberCount`.
// When the pool refuses to make the index larger it goes on serving while it can, and is freed
// then.
void addToIndex(MemberIndex& index, Pool* pool, Member* member);

// Forgets a listed member.
void removeFromIndex(MemberIndex& index, Member* member);

// Goes back to the chains alone and frees the index's memory.
void freeIndex(MemberIndex& index, Pool* pool);

// The hash of a listed member's name.
uint32_t& hashOf(Member* member);

}  // namespace hx
