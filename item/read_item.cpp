#include "item/read_item.h"

#include "file/load_item.h"
#include "item/page_list.h"
#include "item/read_conversion.h"
#include "store/bytes.h"
#include "store/lock_guard.h"
#include "store/status.h"

namespace hx {

namespace {

// A page that the handle has left, for the next one that it needs: a read of many pages takes and
// clears memory once.
class SparePage {
 public:
  explicit SparePage(const ItemMember* item) : item_(item) {}
  ~SparePage() { keep(nullptr); }
  SparePage(const SparePage&) = delete;
  SparePage& operator=(const SparePage&) = delete;

  PageBuf* take() {
    PageBuf* page = page_;
    page_ = nullptr;
    return page;
  }
  void keep(PageBuf* page) {
    if (page_ != nullptr) freePage(item_, page_);
    page_ = page;
  }

 private:
  const ItemMember* item_;
  PageBuf* page_ = nullptr;
};

// The page after the handle's: shared when it is in memory, else loaded and put in the list.
Status nextPage(const ItemHandle* handle, SparePage& spare, PageBuf** next) {
  ItemMember* item = handle->item;
  PageBuf* page = handle->page;
  *next = page->next;
  if (*next != nullptr && (*next)->index == page->index + 1) return kOk;
  if (page->nextChunkOffset == 0) return kEndOfItem;
  if (item->parent->root->file == nullptr) return kFileNotOpen;
  DataChunk chunk;
  const int32_t index = page->index + 1;
  if (!readChunk(item, page->nextChunkOffset, index, &chunk)) return kUnreadable;
  if (chunk.capacity == 0) return kEndOfItem;
  Status status = kOk;
  *next = loadPage(item, chunk, page->nextChunkOffset, index, spare.take(), &status);
  if (*next != nullptr) linkPageAfter(item, page, *next);
  return status;
}

Status moveOn(ItemHandle* handle, SparePage& spare) {
  const LockGuard lock(handle->item->extension->lock);
  if (!lock.taken()) return kNotLocked;
  PageBuf* next = nullptr;
  const Status status = nextPage(handle, spare, &next);
  if (status == kOk) spare.keep(moveHandle(handle, next));
  return status;
}

struct ReadResult {
  int64_t count;
  Status status;
};

// After a move that failed the handle is still on the page before its position.
bool standsOnPosition(const ItemHandle* handle, int32_t pageSize) {
  return handle->position / pageSize == handle->page->index;
}

// Copies what the page still has of the wanted bytes and returns how many.
int64_t copyFromPage(ItemHandle* handle, int32_t pageSize, uint8_t* to, int64_t wanted) {
  const int32_t offset = handle->position % pageSize;
  const int32_t left = handle->item->size - handle->position;
  int64_t count = wanted;
  if (count > pageSize - offset) count = pageSize - offset;
  if (count > left) count = left;
  copyBytes(to, handle->page->buffer + offset, static_cast<uint64_t>(count));
  handle->position += static_cast<int32_t>(count);
  return count;
}

// Copies stored bytes and leaves the handle on the page that holds its new position, also when
// nothing more is wanted.
ReadResult readStoredBytes(ItemHandle* handle, uint8_t* to, int64_t wanted) {
  const ItemMember* item = handle->item;
  const int32_t pageSize = item->parent->root->pageSize;
  if (handle->position >= item->size) return {0, kEndOfItem};
  int64_t count = 0;
  SparePage spare(item);
  for (;;) {
    if (!standsOnPosition(handle, pageSize)) {
      const Status status = moveOn(handle, spare);
      if (status == kEndOfItem && count >= wanted) return {count, kOk};
      if (status != kOk) return {count, status};
    }
    if (count >= wanted) return {count, kOk};
    count += copyFromPage(handle, pageSize, to + count, wanted - count);
    if (handle->position == item->size) return {count, count < wanted ? kEndOfItem : kOk};
  }
}

uint32_t readConverted(Conversion& conversion, ItemHandle* handle, void* buffer, int32_t length,
                       int32_t* status) {
  *status = conversion.prepare(buffer, length);
  if (*status != kOk) return 0;
  const ReadResult stored =
      readStoredBytes(handle, conversion.storedBytes(), conversion.storedLength());
  uint32_t count = 0;
  *status = conversion.convert(stored.count, buffer, length, &count);
  if (*status == kOk) *status = stored.status;
  return count;
}

// The pages of a blob that was closed under its readers are gone.
Status checkReadable(const ItemHandle* handle) {
  if (handle->access == 0) return kNoMemory;
  const Store* root = handle->item->parent->root;
  return isInBlob(root) && openBlob(root) == nullptr ? kFileNotOpen : kOk;
}

}  // namespace

extern "C" uint32_t hxcrateRead(ItemHandle* handle, void* buffer, int32_t length,
                                void* conversionArgument, int32_t* status) {
  *status = kOk;
  if (length == 0) return 0;
  *status = checkReadable(handle);
  if (*status != kOk) return 0;
  Conversion conversion(handle, conversionArgument);
  if (length > 0 && conversion.applies()) {
    return readConverted(conversion, handle, buffer, length, status);
  }
  const ReadResult result = readStoredBytes(handle, static_cast<uint8_t*>(buffer), length);
  *status = result.status;
  return static_cast<uint32_t>(result.count);
}

}  // namespace hx
