#include "item/follow_records.h"

#include "records/lock_guard.h"

namespace hx {

namespace {

// Bounds how long the lock is kept.
constexpr int32_t kMostUnderOneLock = 1024;

void setSize(ItemView* view, int64_t size) {
  ItemMember* item = view->item;
  if (!item->isSizeKnown) {
    item->size = static_cast<int32_t>(size);
    item->isSizeKnown = true;
  }
  __atomic_store_n(&view->knownSize, size, __ATOMIC_RELEASE);
}

Status enterPage(ItemView* view, const ChunkPlace& place) {
  const DataChunk& chunk = place.chunk;
  const int64_t before = static_cast<int64_t>(place.index) * pageSizeOf(view);
  if (before > INT32_MAX - chunk.used) return kUnreadable;
  if (chunk.next != 0 && place.index >= mostPages(view->item)) return kUnreadable;
  if (chunk.next == 0 && view->knownSize >= 0 && view->knownSize != before + chunk.used) {
    return kUnreadable;
  }
  // Before the last page is known, so that nobody reads what lies behind the item's bytes.
  if (chunk.next == 0) setSize(view, before + chunk.used);
  if (chunk.used > 0 && !view->runs.add(view->item->pool, chunk.dataOffset, false)) {
    return kNoMemory;
  }
  view->nextRecord = chunk.next;
  return kOk;
}

// A page in memory, which alone may have its bytes; null when it is not there.
PageBuf* findListed(ItemView* view, int32_t index) {
  PageBuf* page = view->lastListed != nullptr ? view->lastListed : view->item->firstPage;
  while (page != nullptr && page->index < index)
    page = page->next;
  return page != nullptr && page->index == index ? page : nullptr;
}

Status enterListed(ItemView* view, PageBuf* page) {
  const auto address = reinterpret_cast<int64_t>(page->buffer);
  if (!view->runs.add(view->item->pool, address, true)) return kNoMemory;
  view->lastListed = page;
  view->nextRecord = page->nextChunkOffset;
  return kOk;
}

}  // namespace

Status followOne(ItemView* view) {
  const int32_t index = view->runs.pageCount();
  PageBuf* listed = view->holdsPages ? findListed(view, index) : nullptr;
  if (listed != nullptr) return enterListed(view, listed);
  if (view->item->parent->root->file == nullptr) return kFileNotOpen;
  ChunkPlace place = {};
  if (!readChunk(view->item, view->nextRecord, index, &place)) return kUnreadable;
  return enterPage(view, place);
}

Status followRecord(ItemView* view, const DataChunk& record) {
  ChunkPlace place = {view->nextRecord, view->runs.pageCount(), record};
  return acceptChunk(view->item, &place) ? enterPage(view, place) : kUnreadable;
}

Status followTo(ItemView* view, int32_t page) {
  for (;;) {
    const LockGuard lock(view->item->extension->lock);
    if (!lock.taken()) return kNotLocked;
    for (int32_t i = 0; i < kMostUnderOneLock; ++i) {
      if (page < view->runs.pageCount() || areAllKnown(view)) return kOk;
      const Status status = followOne(view);
      if (status != kOk) return status;
    }
  }
}

}  // namespace hx
