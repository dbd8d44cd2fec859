#include "item/open_item.h"

#include "file/item_pages.h"
#include "file/write_pages.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/status.h"
#include "store/open_store.h"
#include "store/page_size.h"
#include "store/purge.h"

namespace hx {

namespace {

// kOk when the tree can take bytes, so that nothing is ever written that has nowhere to go.
Status checkWritable(const Store* store) {
  const Store* root = store->root;
  if (isInBlob(root) || root->openCount > 0) return kContradiction;
  return root->openCount == 0 && root->hasHadFile ? kFileNotOpen : kOk;
}

Status loadPages(ItemMember* item, uint32_t flags) {
  const Status status = item->firstPage == nullptr ? loadItem(item, flags) : kOk;
  if (status != kOk) return status;
  if (!has(flags, kRead) || item->openCount < 0 || item->firstPage->index == 0) return kOk;
  return loadFirstPage(item);
}

// Counts the handle in and puts it where reading or appending starts. A handle opened for neither
// stands nowhere and is not counted.
Status enterItem(ItemMember* item, ItemHandle* handle, uint32_t flags) {
  const Status status = loadPages(item, flags);
  if (status != kOk) return status;
  handle->item = item;
  if (has(flags, kRead)) {
    if (item->openCount < 0) return kItemInUse;
    ++item->openCount;
    handle->page = item->firstPage;
  } else if (has(flags, kUpdate)) {
    if (item->openCount != 0) return kItemInUse;
    if (!canBeContinued(item)) {
      dropStoredPages(item);
      return kUnreadable;
    }
    item->openCount = -1;
    handle->position = item->size;
    handle->page = item->lastPage;
  } else {
    return kOk;
  }
  handle->access = flags & (kRead | kUpdate);
  ++handle->page->useCount;
  return kOk;
}

Status openExisting(Member* found, uint32_t flags, ItemHandle** handle) {
  const bool wantsToCreate = has(flags, kUpdate | kCreate);
  if (has(flags, kExclusive)) return kExists;
  if (found->kind != kItemKind) return wantsToCreate ? kExists : kNotFound;
  ItemMember* item = asItem(found);
  const Status writable = has(flags, kUpdate) ? checkWritable(item->parent) : kOk;
  if (writable != kOk) return writable;
  *handle = allocateRecord<ItemHandle>(item->pool);
  if (*handle == nullptr) return kNoMemory;
  const Status status = enterItem(item, *handle, flags);
  if (status != kOk) freeBlock(item->pool, *handle);
  return status;
}

// Its bytes will be in the encoding of now, whatever the store held before. Readers compare the
// identity without the lock, so it is left alone when it stays the same.
void stampEncoding(Store* store) {
  Encoding* encoding = store->extension->encodingExtension;
  if (encoding == nullptr) return;
  EncodingId current = store->encodingId;
  encoding->fillEncodingId(encoding, &current, HX_ENCODING_ID_LENGTH, 0, 0);
  if (!equalBytes(&current, &store->encodingId, sizeof(current))) store->encodingId = current;
}

// What a new item's creator writes through, or null.
ItemHandle* openNew(ItemMember* item, Name name) {
  if (!copyName(item->pool, asMember(item), name)) return nullptr;
  stampEncoding(item->parent);
  PageBuf* page = newPage(item);
  if (page == nullptr) return nullptr;
  item->firstPage = page;
  item->lastPage = page;
  if (fileOf(item->parent) == nullptr) page->flags = kPageDirty;
  auto* handle = allocateRecord<ItemHandle>(item->pool);
  if (handle == nullptr) return nullptr;
  item->openCount = -1;
  item->dirty = 1;
  item->isSizeKnown = true;
  page->useCount = 1;
  handle->item = item;
  handle->page = page;
  handle->access = kUpdate;
  return handle;
}

Status createItem(Store* store, Name name, ItemHandle** handle) {
  const Status writable = checkWritable(store);
  if (writable != kOk) return writable;
  if (store->root->pageSize < 1) return kNoMemory;
  ItemMember* item = newItem(store);
  if (item == nullptr) return kNoMemory;
  *handle = openNew(item, name);
  if (*handle == nullptr) {
    freeItem(item);
    return kNoMemory;
  }
  insertMember(membersOf(store), asMember(item));
  return kOk;
}

Status openInStore(ExtensionInstance* instance, Store* store, Name name, uint32_t flags,
                   ItemHandle** handle) {
  const LockGuard lock(instance->lock);
  if (!lock.taken()) return kNotLocked;
  if (store == nullptr) return kNoStore;
  fixPageSize(store);
  Member* found = findToOpen(membersOf(store), name);
  if (found == nullptr && !has(flags, kUpdate | kCreate)) return kNotFound;
  const Status status =
      found != nullptr ? openExisting(found, flags, handle) : createItem(store, name, handle);
  if (status == kOk) ++store->root->openHandles;
  return status;
}

void leaveItem(ItemMember* item, uint32_t access) {
  if (access == kRead) --item->openCount;
  if (access != kUpdate) return;
  // The pages of a file that can't take them stay until it can.
  Store* root = item->parent->root;
  if (takesPages(root)) writePages(item, Image(root, nullptr));
  item->openCount = 0;
}

}  // namespace

extern "C" ItemHandle* hxcrateOpenItem(ExtensionInstance* instance, Store* store,
                                       const char32_t* name, int32_t length, uint32_t flags,
                                       int32_t* status) {
  *status = kContradiction;
  if (contradictory(flags)) return nullptr;
  PathWalk stores(instance, store);
  *status = stores.walk(makeName(name, length));
  if (*status != kOk) return nullptr;
  ItemHandle* handle = nullptr;
  *status = openInStore(instance, stores.container(), stores.lastName(), flags, &handle);
  return *status == kOk ? handle : nullptr;
}

extern "C" int32_t hxcrateCloseItem(ItemHandle* handle) {
  ItemMember* item = handle->item;
  LockGuard lock(item->extension->lock);
  if (!lock.taken()) return lock.acquireResult();
  Store* root = item->parent->root;
  leaveItem(item, handle->access);
  if (item->openCount == 0) dropStoredPages(item);
  freeBlock(item->pool, handle);
  --root->openHandles;
  endLastHandle(root);
  return lock.release();
}

}  // namespace hx
