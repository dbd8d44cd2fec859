#include "item/read_at.h"

#include "file/shared_storage.h"
#include "file/storage.h"
#include "file/translation.h"
#include "item/follow_records.h"
#include "item/open_view.h"
#include "item/page_batch.h"
#include "records/bytes.h"
#include "records/lock_guard.h"
#include "store/open_store.h"

namespace hx {

namespace {

// Bounds how long the lock is kept.
constexpr int32_t kMostUnderOneLock = 16;

// What is left of a call.
struct Wanted {
  ItemView* view;
  int64_t offset;
  uint8_t* to;
  int64_t count;

  int32_t page() const { return static_cast<int32_t>(offset / pageSizeOf(view)); }
  int64_t offsetInPage() const { return offset % pageSizeOf(view); }
  PagePlace findPage() const { return view->runs.find(page()); }
  // To be asked once its page was found, for then the length is known if that is the last.
  int64_t countInPage() const {
    int64_t left = pageSizeOf(view) - offsetInPage();
    const int64_t size = knownSize(view);
    if (size >= 0 && left > size - offset) left = size - offset;
    return count < left ? count : left;
  }
  void advance(int64_t taken) {
    offset += taken;
    to += taken;
    count -= taken;
  }
};

// The bytes of a known page where they lie in memory, or null.
const uint8_t* addressOf(const PagePlace& found, const SharedStorage& storage) {
  if (found.pages == 0) return nullptr;
  if (found.isInMemory) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): runs keep places and addresses alike, as numbers
    return reinterpret_cast<const uint8_t*>(found.place);
  }
  return storage.blob() != nullptr ? storage.blob() + found.place : nullptr;
}

// As far as pages are known. False when the next byte does not lie in memory.
bool copyFromMemory(Wanted& wanted) {
  const SharedStorage storage(wanted.view->item->parent->root);
  const int64_t before = wanted.count;
  while (wanted.count > 0) {
    const uint8_t* page = addressOf(wanted.findPage(), storage);
    const int64_t count = wanted.countInPage();
    if (page == nullptr || count <= 0) break;
    copyBytes(wanted.to, page + wanted.offsetInPage(), static_cast<uint64_t>(count));
    wanted.advance(count);
  }
  return wanted.count < before;
}

bool takeBatch(Wanted& wanted) {
  const int64_t taken = PageBatch(wanted.view, wanted.offset, wanted.to, wanted.count).read();
  wanted.advance(taken);
  return taken > 0;
}

// By the file's handle and its position, and one record after the other.
Status readLocked(Wanted& wanted) {
  const Store* store = wanted.view->item->parent;
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  for (int32_t i = 0; i < kMostUnderOneLock && wanted.count > 0; ++i) {
    PagePlace found = wanted.findPage();
    if (found.pages == 0 && !areAllKnown(wanted.view)) {
      const Status status = followOne(wanted.view);
      if (status != kOk) return status;
      found = wanted.findPage();
    }
    const int64_t count = wanted.countInPage();
    if (found.pages == 0 || found.isInMemory || count <= 0) return kOk;
    if (store->root->file == nullptr) return kFileNotOpen;
    const int64_t from = found.place + wanted.offsetInPage();
    if (!readStored(store, from, wanted.to, count)) return kUnreadable;
    wanted.advance(count);
  }
  return kOk;
}

// Whether its pages, once they are known, are copied from memory.
bool liesInMemory(const ItemView* view) {
  return view->holdsPages || isInBlob(view->item->parent);
}

// Some bytes more, or what they need to be read: kOk. Else why they can't be had.
Status readMore(Wanted& wanted) {
  if (copyFromMemory(wanted) || takeBatch(wanted)) return kOk;
  ItemView* view = wanted.view;
  const int64_t size = knownSize(view);
  if (size >= 0 && wanted.offset >= size) return kEndOfItem;
  if (wanted.findPage().pages > 0) return readLocked(wanted);
  // In a file the records that follow are read with the bytes before them, unless they lie apart.
  const bool liesApart = recordsLieApart(view->item->parent->root, view->firstRecord);
  if (!liesInMemory(view) && !liesApart) return followTo(view, wanted.page());
  return followTo(view,
                  static_cast<int32_t>((wanted.offset + wanted.count - 1) / pageSizeOf(view)));
}

// An item of one page that is read without being opened.
struct SinglePage {
  const ItemMember* item;
  uint8_t* to;
  int64_t capacity;

  int64_t readFrom(FileHandle* file) const;
  int64_t copyFrom(const uint8_t* blob) const;
  bool isAll(ChunkPlace& first) const {
    return acceptChunk(item, &first) && first.chunk.next == 0 && first.chunk.used <= capacity;
  }
};

// All of its bytes, or -1: it is longer, or damaged.
int64_t SinglePage::readFrom(FileHandle* file) const {
  const Store* root = item->parent->root;
  ChunkPlace first = {static_cast<int64_t>(item->firstChunkOffset), 0, {}};
  const int64_t behind = first.offset + kChunkSize;
  if (!liesInside(root, first.offset, kChunkSize)) return -1;
  const int32_t partCount = recordsLieApart(root, first.offset) ? 1 : 2;
  int64_t count = capacity < root->pageSize ? capacity : root->pageSize;
  if (count > root->fileEnd - behind) count = root->fileEnd - behind;
  const ReadRequest parts[] = {{&first.chunk, kChunkSize}, {to, count}};
  if (file->readAt(file, parts, partCount, first.offset) != 0 || !isAll(first)) return -1;
  const int32_t used = first.chunk.used;
  const bool isRead = partCount == 2 && first.chunk.dataOffset == behind && used <= count;
  if (used == 0 || isRead) return used;
  const ReadRequest elsewhere{to, used};
  return file->readAt(file, &elsewhere, 1, first.chunk.dataOffset) == 0 ? used : -1;
}

int64_t SinglePage::copyFrom(const uint8_t* blob) const {
  ChunkPlace first = {};
  if (!readChunk(item, static_cast<int64_t>(item->firstChunkOffset), 0, &first)) return -1;
  if (first.chunk.next != 0 || first.chunk.used > capacity) return -1;
  copyBytes(to, blob + first.chunk.dataOffset, static_cast<uint64_t>(first.chunk.used));
  return first.chunk.used;
}

Status readUnopened(Store* store, Name name, SinglePage& page, int64_t* size) {
  LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  ItemMember* item = nullptr;
  const Status status = findItem(store, name, &item);
  if (status != kOk) return status;
  if (item->openCount < 0) return kItemInUse;
  if (item->firstPage != nullptr || isForeign(store)) return kOk;
  page.item = item;
  // The tree stays what it is until the end of the scope, also behind the lock.
  const SharedStorage storage(store->root);
  lock.release();
  if (storage.file() != nullptr) *size = page.readFrom(storage.file());
  if (storage.blob() != nullptr) *size = page.copyFrom(storage.blob());
  return kOk;
}

}  // namespace

extern "C" int32_t hxcrateReadAt(ItemView* view, int64_t offset, void* buffer, int32_t length,
                                 int32_t* status) {
  *status = kOk;
  if (length <= 0) return 0;
  *status = kEndOfItem;
  if (offset < 0 || offset >= INT32_MAX) return 0;
  const int64_t room = INT32_MAX - offset;
  Wanted wanted{view, offset, static_cast<uint8_t*>(buffer), length < room ? length : room};
  *status = kOk;
  while (wanted.count > 0 && *status == kOk)
    *status = readMore(wanted);
  const int64_t count = wanted.offset - offset;
  if (*status == kOk && count < length) *status = kEndOfItem;
  return static_cast<int32_t>(count);
}

extern "C" const void* hxcrateBytesAt(ItemView* view, int64_t offset, int64_t* count,
                                      int32_t* status) {
  *count = 0;
  *status = kOk;
  if (!liesInMemory(view)) return nullptr;
  *status = kEndOfItem;
  if (offset < 0 || offset >= INT32_MAX) return nullptr;
  const Wanted wanted{view, offset, nullptr, INT32_MAX - offset};
  *status = followTo(view, wanted.page());
  if (*status != kOk) return nullptr;
  const SharedStorage storage(view->item->parent->root);
  const PagePlace found = wanted.findPage();
  const uint8_t* page = addressOf(found, storage);
  const int64_t left = wanted.countInPage();
  if (found.pages == 0 || left <= 0) *status = kEndOfItem;
  if (page == nullptr || left <= 0) return nullptr;
  *count = left;
  return page + wanted.offsetInPage();
}

extern "C" int32_t hxcrateReadItem(ExtensionInstance* instance, Store* store, const char32_t* name,
                                   int32_t length, void* buffer, int32_t capacity, int64_t* size,
                                   int32_t* status) {
  *size = -1;
  PathWalk stores(instance, store);
  *status = stores.walk(makeName(name, length));
  if (*status == kOk && stores.container() == nullptr) *status = kNoStore;
  if (*status != kOk) return 0;
  SinglePage page{nullptr, static_cast<uint8_t*>(buffer), capacity};
  *status = readUnopened(stores.container(), stores.lastName(), page, size);
  return *size < 0 ? 0 : static_cast<int32_t>(*size);
}

}  // namespace hx
