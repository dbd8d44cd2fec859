// The table of members that every container has: 63 chains by the hash of the name.
// Callers hold the instance's lock.
#pragma once

#include "store/export.h"
#include "store/name.h"
#include "store/records.h"

namespace hx {

extern "C" {

// The first member of the bucket's chain whose name equals the given one exactly, or null.
HX_EXPORT Member* lookup(const MemberTable* table, int32_t bucket, const char32_t* name,
                         int32_t length);

}  // extern "C"

Member* findMember(const MemberTable& table, Name name);

// Puts a member, whose name is set, at the head of its bucket.
void insertMember(MemberTable& table, Member* member);

// Unlinks this very record; nothing happens when it is not in the table.
void removeMember(MemberTable& table, const Member* member);

// The head of the first bucket from `bucket` on that has one, or null.
Member* firstMember(const MemberTable& table, int32_t bucket = 0);

// The member after a listed one: bucket 0 to 62, each from its head.
Member* nextMember(const MemberTable& table, const Member* member);

}  // namespace hx
