// The index beside the chains of a large table: an open-addressing table from a hash of its own,
// not the format's, to the newest member of a name, probed one slot after the other.
//
//   1. A slot lies at or behind the home of its hash, with no empty slot between.
//   2. Each name of the table has one slot, however many members bear it: that of the newest.
//   3. At least one slot is empty, so that every probe ends.
//
// An index stays at its address, which its hashes depend on.
//
// Callers hold the instance's lock.
#pragma once

#include "records/name.h"
#include "records/records.h"

namespace hx {

// Gives the index of a large table that has none its slots. When the pool refuses them the chains
// serve alone. Called where members were loaded and where they are opened, which may fail for want
// of memory anyway: an enumeration takes none.
void reserveIndex(MemberIndex& index, Pool* pool);

// Enters the members into the slots, if there are any, before the first search: a table that is
// loaded and not searched need not pay for it.
void fillIndex(MemberIndex& index, const MemberTable& table);

// The hash that a name has in this index.
uint32_t keyedHash(const MemberIndex& index, Name name);

// The newest member of that name, or null. The index is filled.
Member* findInIndex(const MemberIndex& index, Name name);

// Takes note of a member that was put at the head of its chain and is counted in `memberCount`.
// When the pool refuses to make the index larger it goes on serving while it can, and is freed
// then.
void addToIndex(MemberIndex& index, Pool* pool, Member* member);

// Forgets a member, which is out of its chain but still has its `next`.
void removeFromIndex(MemberIndex& index, Member* member);

// Goes back to the chains alone and frees the index's memory.
void freeIndex(MemberIndex& index, Pool* pool);

// Those of a listed member.
MemberHashes& hashesOf(Member* member);

}  // namespace hx
