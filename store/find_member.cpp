#include "store/find_member.h"

#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/status.h"

namespace hx {

extern "C" Member* hxcrateFindMember(Store* store, const char32_t* name, int32_t length,
                                     int32_t* status) {
  const LockGuard lock(store->extension->lock);
  *status = kNotLocked;
  if (!lock.taken()) return nullptr;
  Member* found = findMember(membersOf(store), makeName(name, length));
  *status = found != nullptr ? kOk : kNotFound;
  return found;
}

}  // namespace hx
