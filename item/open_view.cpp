#include "item/open_view.h"

#include "file/item_pages.h"
#include "item/follow_records.h"
#include "item/read_at.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "store/open_store.h"
#include "store/page_size.h"
#include "store/purge.h"

namespace hx {

namespace {

bool hasDirtyPage(const ItemMember* item) {
  const PageBuf* page = item->firstPage;
  while (page != nullptr && (page->flags & kPageDirty) == 0)
    page = page->next;
  return page != nullptr;
}

Status makeView(Store* store, Name name, ItemView** view) {
  ItemMember* item = nullptr;
  const Status status = findItem(store, name, &item);
  if (status != kOk) return status;
  *view = allocateRecord<ItemView>(item->pool);
  if (*view == nullptr) return kNoMemory;
  const Status entered = enterView(*view, item);
  if (entered != kOk) freeBlock(item->pool, *view);
  return entered;
}

Status openLocked(ExtensionInstance* instance, Store* store, Name name, ItemView** view) {
  const LockGuard lock(instance->lock);
  return lock.taken() ? makeView(store, name, view) : kNotLocked;
}

// The length of an item that nobody writes to, with the lock held.
Status learnSize(ItemMember* item) {
  ItemView view = {};
  Status status = enterView(&view, item);
  if (status != kOk) return status;
  while (status == kOk && !areAllKnown(&view))
    status = followOne(&view);
  leaveView(&view);
  return status;
}

}  // namespace

Status findItem(Store* store, Name name, ItemMember** item) {
  if (store == nullptr) return kNoStore;
  fixPageSize(store);
  Member* found = findToOpen(membersOf(store), name);
  if (found == nullptr || found->kind != kItemKind) return kNotFound;
  *item = asItem(found);
  return kOk;
}

Status enterView(ItemView* view, ItemMember* item) {
  if (item->openCount < 0) return kItemInUse;
  view->holdsPages = hasDirtyPage(item);
  if (!view->holdsPages && item->parent->root->file == nullptr) return kFileNotOpen;
  view->item = item;
  view->readAt = hxcrateReadAt;
  view->size = hxcrateSizeOfView;
  view->bytesAt = hxcrateBytesAt;
  view->close = hxcrateCloseView;
  view->knownSize = item->isSizeKnown ? item->size : -1;
  view->firstRecord = static_cast<int64_t>(item->firstChunkOffset);
  view->nextRecord = view->firstRecord;
  if (view->holdsPages) ++item->pageHolders;
  ++item->openCount;
  ++item->parent->root->openHandles;
  return kOk;
}

void leaveView(ItemView* view) {
  ItemMember* item = view->item;
  Store* root = item->parent->root;
  if (view->holdsPages) --item->pageHolders;
  --item->openCount;
  view->runs.release(item->pool);
  if (item->openCount == 0) dropStoredPages(item);
  --root->openHandles;
  endLastHandle(root);
}

extern "C" ItemView* hxcrateOpenView(ExtensionInstance* instance, Store* store,
                                     const char32_t* name, int32_t length, int32_t* status) {
  PathWalk stores(instance, store);
  *status = stores.walk(makeName(name, length));
  if (*status != kOk) return nullptr;
  ItemView* view = nullptr;
  *status = openLocked(instance, stores.container(), stores.lastName(), &view);
  return *status == kOk ? view : nullptr;
}

extern "C" int32_t hxcrateCloseView(ItemView* view) {
  Pool* pool = view->item->pool;
  LockGuard lock(view->item->extension->lock);
  if (!lock.taken()) return lock.acquireResult();
  leaveView(view);
  freeBlock(pool, view);
  return lock.release();
}

extern "C" int64_t hxcrateSizeOfView(ItemView* view, int32_t* status) {
  *status = kOk;
  if (knownSize(view) < 0) *status = followTo(view, INT32_MAX);
  return *status == kOk ? knownSize(view) : -1;
}

extern "C" int64_t hxcrateSizeOfItem(ItemMember* item, int32_t* status) {
  const LockGuard lock(item->extension->lock);
  *status = lock.taken() ? kOk : kNotLocked;
  if (lock.taken() && !item->isSizeKnown) *status = learnSize(item);
  return *status == kOk ? __atomic_load_n(&item->size, __ATOMIC_RELAXED) : -1;
}

}  // namespace hx
