// The table of members that every container has: 63 chains by the hash of the name, and an index
// beside them once it is large. Callers hold the instance's lock.
#pragma once

#include "records/name.h"
#include "records/records.h"

namespace hx {

// The first member of a chain whose name equals the given one exactly, or null.
Member* findInChain(Member* head, Name name);

// A table with its index, wherever they lie.
struct Container {
  MemberTable& table;
  MemberIndex& index;
  Pool* pool;
};

Container membersOf(Store* store);
Container storesOf(ExtensionInstance* instance);

// What a store is, or is to be, a member of.
Container containerOf(Store* store);

// The newest member of that name, or null.
Member* findMember(const Container& container, Name name);

// The same for an open, which may take memory: a large table gets room for its index first.
Member* findToOpen(const Container& container, Name name);

// Whether a listed member is what a search for its name finds.
bool isNewestOfItsName(const Container& container, Member* member);

// Puts a member, whose name and kind are set, at the head of its bucket.
void insertMember(const Container& container, Member* member);

// Unlinks this very record; nothing happens when it is not in the table.
void removeMember(const Container& container, Member* member);

// The head of the first bucket from `bucket` on that has one, or null.
Member* firstMember(const MemberTable& table, int32_t bucket = 0);

// The member after a listed one: bucket 0 to 62, each from its head.
Member* nextMember(const MemberTable& table, Member* member);

// Gives a large table room for its index, unless it has some or the pool refuses.
void makeIndexRoom(const Container& container);

// Goes back to the chains alone and frees the index's memory.
void releaseIndex(const Container& container);

}  // namespace hx
