#include "store/enumerate.h"

#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/status.h"

namespace hx {

namespace {

Member* memberAfter(const Container& members, Name name) {
  if (name.length == 0) return firstMember(members.table);
  Member* found = findMember(members, name);
  if (found != nullptr) return nextMember(members.table, found);
  return firstMember(members.table, bucketOf(name) + 1);
}

bool canBeCursor(const Container& members, Member* member) {
  return member->nameLength > 0 && isNewestOfItsName(members, member);
}

}  // namespace

extern "C" int32_t hxcrateGetNextMember(Store* store, const char32_t* name, int32_t length,
                                        char32_t* nameOut, int32_t* lengthOut, int32_t* kindOut) {
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  const Container members = membersOf(store);
  Member* next = memberAfter(members, makeName(name, length));
  while (next != nullptr && !canBeCursor(members, next))
    next = nextMember(members.table, next);
  if (next == nullptr) return kNotFound;
  copyBytes(nameOut, next->name, byteCount(nameOf(next)));
  *lengthOut = next->nameLength;
  *kindOut = next->kind;
  return kOk;
}

}  // namespace hx
