#include "item/write_item.h"

#include "file/disk_space.h"
#include "file/format.h"
#include "file/item_pages.h"
#include "file/write_pages.h"
#include "records/lock_guard.h"
#include "records/status.h"

namespace hx {

namespace {

// Bytes that still fit on the handle's page. 0 also when an earlier attempt to add a page failed.
int32_t roomOnPage(const ItemHandle* handle) {
  const int64_t pageEnd = (handle->page->index + int64_t{1}) * pageSizeOf(handle->item);
  return static_cast<int32_t>(pageEnd - handle->position);
}

// The full pages go to the file, and the item keeps the new page alone in memory.
void flushFullPages(ItemMember* item, const PageBuf* added) {
  const Store* root = item->parent->root;
  if (!takesPages(root)) return;
  writePages(item, Image(root, nullptr));
  dropPagesBefore(item, added);
}

// Puts an empty page behind the full one that the handle stands on, and the handle on it. The new
// page is dirty at once: the record before it already names it.
Status addPage(ItemHandle* handle) {
  ItemMember* item = handle->item;
  const LockGuard lock(item->extension->lock);
  if (!lock.taken()) return kNotLocked;
  if (item->firstChunkOffset == 0) {
    item->firstChunkOffset = static_cast<uint64_t>(allocateDiskSpace(item->parent, kChunkSize));
  }
  PageBuf* full = handle->page;
  handle->page = newPage(item);
  if (handle->page == nullptr) return kNoMemory;
  handle->page->index = full->index + 1;
  handle->page->useCount = 1;
  if (full->useCount > 0) --full->useCount;
  linkPageAfter(item, full, handle->page);
  flushFullPages(item, handle->page);
  handle->page->flags |= kPageDirty;
  return kOk;
}

void copyIn(ItemHandle* handle, const uint8_t* from, int32_t count) {
  const int32_t offset = handle->position % pageSizeOf(handle->item);
  copyBytes(handle->page->buffer + offset, from, static_cast<uint64_t>(count));
  handle->page->flags |= kPageDirty;
  handle->position += count;
  // Who asks for the length does not wait for the writer.
  __atomic_store_n(&handle->item->size, handle->item->size + count, __ATOMIC_RELAXED);
}

}  // namespace

extern "C" int32_t hxcrateWrite(ItemHandle* handle, const void* buffer, int32_t length,
                                int32_t* status) {
  *status = kNoMemory;
  if (handle->access != kUpdate || handle->page == nullptr) return 0;
  handle->page->flags |= kPageDirty;
  const int32_t room = INT32_MAX - handle->item->size;
  const int32_t wanted = length > room ? room : length;
  const auto* from = static_cast<const uint8_t*>(buffer);
  int32_t taken = 0;
  while (taken < wanted) {
    if (roomOnPage(handle) > 0) {
      const int32_t missing = wanted - taken;
      const int32_t count = missing < roomOnPage(handle) ? missing : roomOnPage(handle);
      copyIn(handle, from + taken, count);
      taken += count;
    }
    if (roomOnPage(handle) > 0) continue;
    *status = addPage(handle);
    if (*status != kOk) return taken;
  }
  *status = wanted < length ? kNoMemory : kOk;
  return taken;
}

}  // namespace hx
