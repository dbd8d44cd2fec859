#include "file/item_pages.h"

#include "file/storage.h"

namespace hx {

namespace {

// Whether the tree has a file or a blob that pages could be taken from now.
bool hasStorage(const ItemMember* item) {
  return item->parent->root->file != nullptr;
}

// A new page, filled; null with kNoMemory or kUnreadable.
PageBuf* loadPage(const ItemMember* item, const ChunkPlace& place, Status* status) {
  PageBuf* page = newPage(item);
  *status = page != nullptr ? fillPage(item, page, place) : kNoMemory;
  if (*status == kOk || page == nullptr) return page;
  freePage(item, page);
  return nullptr;
}

// Gives an item that has none a page in memory, and its size; without a size it gets neither.
Status enterPage(ItemMember* item, PageBuf* page, int64_t size) {
  if (size < 0) {
    freePage(item, page);
    return kUnreadable;
  }
  item->firstPage = page;
  item->lastPage = page;
  item->size = static_cast<int32_t>(size);
  item->isSizeKnown = true;
  return kOk;
}

Status loadFirstOf(ItemMember* item, ChunkPlace place) {
  Status status = kOk;
  PageBuf* page = loadPage(item, place, &status);
  return page == nullptr ? status : enterPage(item, page, goToLastChunk(item, &place));
}

Status loadLastOf(ItemMember* item, ChunkPlace place) {
  const int64_t size = goToLastChunk(item, &place);
  if (size < 0) return kUnreadable;
  Status status = kOk;
  PageBuf* page = loadPage(item, place, &status);
  return page == nullptr ? status : enterPage(item, page, size);
}

}  // namespace

bool takesPages(const Store* root) {
  return fileOf(root) != nullptr && root->openCount < 0;
}

Status loadItem(ItemMember* item, uint32_t flags) {
  if (!hasStorage(item)) return kFileNotOpen;
  ChunkPlace first = {};
  if (!readFirstChunk(item, &first)) return kUnreadable;
  if (has(flags, kRead)) return loadFirstOf(item, first);
  if (!isInBlob(item->parent)) return loadLastOf(item, first);
  return first.chunk.used < pageSizeOf(item) ? loadFirstOf(item, first) : kNoMemory;
}

Status loadFirstPage(ItemMember* item) {
  if (!hasStorage(item)) return kFileNotOpen;
  ChunkPlace first = {};
  if (!readFirstChunk(item, &first)) return kUnreadable;
  // Somebody may have changed the record since the size was found by it.
  const int32_t expected = item->size < pageSizeOf(item) ? item->size : pageSizeOf(item);
  if (first.chunk.used < expected) return kUnreadable;
  Status status = kOk;
  PageBuf* page = loadPage(item, first, &status);
  if (page == nullptr) return status;
  page->next = item->firstPage;
  item->firstPage = page;
  return kOk;
}

void describePage(const ItemMember* item, PageBuf* page, const ChunkPlace& place) {
  page->dataOffset = place.chunk.dataOffset;
  page->capacity = place.chunk.capacity;
  page->used = place.chunk.used;
  page->nextChunkOffset = place.chunk.next;
  page->chunkOffset = place.offset;
  page->index = place.index;
  // An item without a byte has no place for its page; its dataOffset is 0. Nobody writes through
  // the buffer of a blob's page.
  const uint8_t* blob = blobOf(item->parent);
  if (blob != nullptr) page->buffer = const_cast<uint8_t*>(blob) + page->dataOffset;
}

Status fillPage(const ItemMember* item, PageBuf* page, const ChunkPlace& place) {
  describePage(item, page, place);
  const int64_t count = bytesToRead(place);
  if (isInBlob(item->parent) || count == 0) return kOk;
  return readStored(item->parent, page->dataOffset, page->buffer, count) ? kOk : kUnreadable;
}

bool canBeContinued(const ItemMember* item) {
  const PageBuf* page = item->lastPage;
  const bool isStored = !isDirty(page) && page->capacity != 0;
  if (!isStored || fileOf(item->parent) == nullptr) return true;
  return liesInside(item->parent, page->dataOffset, page->capacity);
}

void linkPageAfter(ItemMember* item, PageBuf* page, PageBuf* added) {
  added->next = page->next;
  page->next = added;
  if (item->lastPage == page) item->lastPage = added;
}

void moveHandle(ItemHandle* handle, PageBuf* page) {
  ++page->useCount;
  leavePage(handle->item, handle->page);
  handle->page = page;
}

void leavePage(ItemMember* item, PageBuf* page) {
  if (page->useCount > 0) --page->useCount;
  if (page->useCount > 0 || !hasStorage(item) || isDirty(page) || item->pageHolders > 0) return;
  PageBuf** link = &item->firstPage;
  while (*link != nullptr && *link != page)
    link = &(*link)->next;
  if (*link == nullptr) return;
  *link = page->next;
  freePage(item, page);
}

// Also when the file is closed by now: an item with its first page alone in memory would be
// continued there, and no longer behind its end.
void dropStoredPages(ItemMember* item) {
  if (!hasStorage(item) && !item->parent->root->hasHadFile) return;
  for (const PageBuf* page = item->firstPage; page != nullptr; page = page->next) {
    if (isDirty(page)) return;
  }
  dropPagesBefore(item, nullptr);
}

void dropPagesBefore(ItemMember* item, const PageBuf* kept) {
  while (item->firstPage != kept) {
    PageBuf* page = item->firstPage;
    item->firstPage = page->next;
    freePage(item, page);
  }
}

}  // namespace hx
