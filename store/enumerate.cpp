#include "store/enumerate.h"

#include "store/lock_guard.h"
#include "store/member_table.h"
#include "store/status.h"

namespace hx {

namespace {

Member* memberAfter(const MemberTable& table, Name name) {
  if (name.length == 0) return firstMember(table);
  const Member* found = findMember(table, name);
  if (found != nullptr && found->next != nullptr) return found->next;
  return firstMember(table, bucketOf(name) + 1);
}

bool canBeCursor(const MemberTable& table, const Member* member) {
  const Name name = nameOf(member);
  return name.length > 0 && findMember(table, name) == member;
}

}  // namespace

extern "C" int32_t hxcrateGetNextMember(Store* store, const char32_t* name, int32_t length,
                                        char32_t* nameOut, int32_t* lengthOut, int32_t* kindOut) {
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  const Member* next = memberAfter(store->members, makeName(name, length));
  while (next != nullptr && !canBeCursor(store->members, next)) {
    next = nextMember(store->members, next);
  }
  if (next == nullptr) return kNotFound;
  copyBytes(nameOut, next->name, byteCount(nameOf(next)));
  *lengthOut = next->nameLength;
  *kindOut = next->kind;
  return kOk;
}

}  // namespace hx
