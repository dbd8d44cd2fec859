#include "store/purge.h"

#include "file/disk_space.h"
#include "file/shared_storage.h"
#include "file/translation.h"
#include "records/builders.h"
#include "records/member_table.h"
#include "records/memory.h"

namespace hx {

namespace {

Member* takeFirstMember(Store* store) {
  Member* member = firstMember(store->members);
  if (member != nullptr) removeMember(membersOf(store), member);
  return member;
}

// A store opened from a blob is in no table.
void leaveTable(Store* store) {
  if ((store->flags & kMemoryBacked) != 0) return;
  removeMember(containerOf(store), asMember(store));
}

}  // namespace

void purgeStore(Store* store) {
  Pool* pool = store->extension->pool;
  leaveTable(store);
  freeBlock(pool, store->name);
  freeMembers(store);
  freeBlock(pool, store);
}

// Depth first, without recursion: a nested store is taken out of its parent before its own members
// are freed, so `parent` is all that leads back.
void freeMembers(Store* top) {
  Pool* pool = top->extension->pool;
  Store* store = top;
  for (;;) {
    releaseIndex(membersOf(store));
    Member* member = takeFirstMember(store);
    if (member == nullptr && store == top) return;
    if (member == nullptr) {
      Store* finished = store;
      store = store->parent;
      freeBlock(pool, finished->name);
      freeBlock(pool, finished);
    } else if (member->kind == kStoreKind) {
      store = asStore(member);
    } else {
      freeItem(asItem(member));
    }
  }
}

void dropStore(Store* root) {
  withdrawStorage(root);
  releaseConverters(root);
  releaseFreeList(root);
  if (root->openHandles == 0) return purgeStore(root);
  leaveTable(root);
  root->file = nullptr;
  root->condemned = true;
}

void endLastHandle(Store* root) {
  if (root->openHandles != 0 || root->openCount != 0) return;
  releaseConverters(root);
  if (root->condemned) purgeStore(root);
}

}  // namespace hx
