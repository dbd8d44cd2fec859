#include "item/open_item.h"

#include "file/load_item.h"
#include "file/write_pages.h"
#include "item/page_list.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/slots.h"
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
  if (item->firstPage == nullptr) {
    const int32_t result = loadItem(item, flags);
    if (result < -1) return static_cast<Status>(result);
    if (result != 0 || item->firstPage == nullptr) return kNoMemory;
  }
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

// A new item in the making; what was made is freed again unless it is all there.
class NewItem {
 public:
  explicit NewItem(Pool* pool) : pool_(pool) {}
  ~NewItem() {
    freeBlock(pool_, buffer_);
    freeBlock(pool_, page_);
    if (item_ != nullptr) freeBlock(pool_, item_->name);
    freeBlock(pool_, item_);
  }
  NewItem(const NewItem&) = delete;
  NewItem& operator=(const NewItem&) = delete;

  // The handle of an item that is complete but for its place in the table, or null.
  ItemHandle* make(Store* store, Name name) {
    item_ = allocateRecord<ItemMember>(pool_);
    if (item_ == nullptr || !copyName(pool_, asMember(item_), name)) return nullptr;
    stampEncoding(store);
    page_ = allocateRecord<PageBuf>(pool_);
    if (page_ == nullptr) return nullptr;
    buffer_ = allocateBlock(pool_, static_cast<uint64_t>(store->root->pageSize));
    if (buffer_ == nullptr) return nullptr;
    auto* handle = allocateRecord<ItemHandle>(pool_);
    if (handle != nullptr) complete(store, handle);
    return handle;
  }

 private:
  // Its bytes will be in the encoding of now, whatever the store held before. Readers compare the
  // identity without the lock, so it is left alone when it stays the same.
  static void stampEncoding(Store* store) {
    Encoding* encoding = store->extension->encodingExtension;
    if (encoding == nullptr) return;
    EncodingId current = store->encodingId;
    encoding->fillEncodingId(encoding, &current, HX_ENCODING_ID_LENGTH, 0, 0);
    if (!equalBytes(&current, &store->encodingId, sizeof(current))) store->encodingId = current;
  }

  void complete(Store* store, ItemHandle* handle) {
    page_->buffer = static_cast<uint8_t*>(buffer_);
    page_->useCount = 1;
    // Without a file the page exists in memory alone, even while it is empty.
    if (openFile(store) == nullptr) page_->flags = kPageDirty;
    item_->pool = pool_;
    item_->extension = store->extension;
    item_->openCount = -1;
    item_->parent = store;
    item_->kind = kItemKind;
    item_->dirty = 1;
    item_->isSizeKnown = true;
    item_->firstPage = page_;
    item_->lastPage = page_;
    fillItemSlots(item_);
    handle->item = item_;
    handle->page = page_;
    handle->access = kUpdate;
    buffer_ = nullptr;
    page_ = nullptr;
    item_ = nullptr;
  }

  Pool* pool_;
  ItemMember* item_ = nullptr;
  PageBuf* page_ = nullptr;
  void* buffer_ = nullptr;
};

Status createItem(Store* store, Name name, ItemHandle** handle) {
  const Status writable = checkWritable(store);
  if (writable != kOk) return writable;
  if (store->root->pageSize < 1) return kNoMemory;
  *handle = NewItem(store->extension->pool).make(store, name);
  if (*handle == nullptr) return kNoMemory;
  insertMember(membersOf(store), asMember((*handle)->item));
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
  // A file that is open for readers only can't take the pages; they stay until it can.
  const Store* root = item->parent->root;
  if (openFile(root) != nullptr && root->openCount < 0) writeItem(item);
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
