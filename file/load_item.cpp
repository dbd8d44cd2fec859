#include "file/load_item.h"

#include "file/record_maps.h"
#include "file/storage.h"
#include "file/translate.h"
#include "records/memory.h"

namespace hx {

namespace {

// How many bytes of a page block are read: an item's only page may have been stored short.
int64_t bytesToRead(const DataChunk& chunk, int32_t index) {
  return index == 0 ? chunk.used : chunk.capacity;
}

bool isSound(const ItemMember* item, const DataChunk& chunk, int32_t index) {
  const int32_t pageSize = item->parent->root->pageSize;
  if (chunk.capacity == 0) return chunk.dataOffset == 0 && chunk.used == 0 && chunk.next == 0;
  if (chunk.capacity != pageSize || chunk.used < 0 || chunk.used > pageSize) return false;
  if (chunk.next != 0 && chunk.used != pageSize) return false;
  return liesInside(item->parent, chunk.dataOffset, bytesToRead(chunk, index));
}

// A walk over an item's chain: where it stands, and the size of all pages up to there.
struct ChainWalk {
  const ItemMember* item;
  ChunkPlace place;
  int64_t size;

  bool stepTo(int64_t offset, int32_t index) {
    if (!readChunk(item, offset, index, &place)) return false;
    size += place.chunk.used;
    return size <= INT32_MAX;
  }

  bool goToEnd() {
    const int64_t most = mostPages(item);
    while (place.chunk.next != 0) {
      if (place.index >= most || !stepTo(place.chunk.next, place.index + 1)) return false;
    }
    return true;
  }
};

// The page that an open wants, and the item's size.
PageBuf* loadWantedPage(ChainWalk& walk, bool wantsFirst, Status* status) {
  *status = kUnreadable;
  if (!walk.stepTo(static_cast<int64_t>(walk.item->firstChunkOffset), 0)) return nullptr;
  if (!wantsFirst) return walk.goToEnd() ? loadPage(walk.item, walk.place, status) : nullptr;
  PageBuf* page = loadPage(walk.item, walk.place, status);
  if (page == nullptr || walk.goToEnd()) return page;
  freePage(walk.item, page);
  *status = kUnreadable;
  return nullptr;
}

int32_t loadOnePage(ItemMember* item, bool wantsFirst) {
  ChainWalk walk = {item, {}, 0};
  Status status = kOk;
  PageBuf* page = loadWantedPage(walk, wantsFirst, &status);
  if (page == nullptr) return status == kNoMemory ? -1 : status;
  item->firstPage = page;
  item->lastPage = page;
  item->size = static_cast<int32_t>(walk.size);
  item->isSizeKnown = true;
  return 0;
}

}  // namespace

extern "C" int32_t loadItem(ItemMember* item, uint32_t flags) {
  if ((item->flags & kMemoryBacked) != 0) return loadItemFromMemory(item, flags);
  if (openFile(item->parent) == nullptr) return kFileNotOpen;
  return loadOnePage(item, has(flags, kRead));
}

extern "C" int32_t loadItemFromMemory(ItemMember* item, uint32_t flags) {
  if (openBlob(item->parent) == nullptr) return kFileNotOpen;
  ChunkPlace first = {};
  const auto offset = static_cast<int64_t>(item->firstChunkOffset);
  if (!readChunk(item, offset, 0, &first)) return kUnreadable;
  const bool isOnlyPage = first.chunk.used < item->parent->root->pageSize;
  if (!isOnlyPage && !has(flags, kRead)) return 0;
  return loadOnePage(item, true);
}

bool readChunk(const ItemMember* item, int64_t offset, int32_t index, ChunkPlace* place) {
  place->offset = offset;
  place->index = index;
  return readStored(item->parent, offset, &place->chunk, kChunkSize) && acceptChunk(item, place);
}

bool acceptChunk(const ItemMember* item, ChunkPlace* place) {
  translateStructure(item->parent, &place->chunk, kChunkSize, DATACHUNK_map);
  return isSound(item, place->chunk, place->index);
}

int64_t mostPages(const ItemMember* item) {
  const int64_t perPage = kChunkSize + static_cast<int64_t>(item->parent->root->pageSize);
  return storedLength(item->parent) / perPage;
}

PageBuf* newPage(const ItemMember* item) {
  auto* page = allocateRecord<PageBuf>(item->pool);
  if (page == nullptr || isInBlob(item->parent)) return page;
  const auto pageSize = static_cast<uint64_t>(item->parent->root->pageSize);
  page->buffer = static_cast<uint8_t*>(allocateBlock(item->pool, pageSize));
  if (page->buffer != nullptr) return page;
  freeBlock(item->pool, page);
  return nullptr;
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
  const uint8_t* blob = openBlob(item->parent);
  if (blob != nullptr) page->buffer = const_cast<uint8_t*>(blob) + page->dataOffset;
}

Status fillPage(const ItemMember* item, PageBuf* page, const ChunkPlace& place) {
  describePage(item, page, place);
  const int64_t count = bytesToRead(place.chunk, place.index);
  if (isInBlob(item->parent) || count == 0) return kOk;
  return readStored(item->parent, page->dataOffset, page->buffer, count) ? kOk : kUnreadable;
}

PageBuf* loadPage(const ItemMember* item, const ChunkPlace& place, Status* status) {
  PageBuf* page = newPage(item);
  *status = page != nullptr ? fillPage(item, page, place) : kNoMemory;
  if (*status == kOk || page == nullptr) return page;
  freePage(item, page);
  return nullptr;
}

Status loadFirstPage(ItemMember* item) {
  if (item->parent->root->file == nullptr) return kFileNotOpen;
  const auto offset = static_cast<int64_t>(item->firstChunkOffset);
  ChunkPlace first = {};
  if (!readChunk(item, offset, 0, &first)) return kUnreadable;
  Status status = kOk;
  PageBuf* page = loadPage(item, first, &status);
  if (page == nullptr) return status;
  page->next = item->firstPage;
  item->firstPage = page;
  return kOk;
}

bool canBeContinued(const ItemMember* item) {
  const PageBuf* page = item->lastPage;
  const bool isStored = (page->flags & kPageDirty) == 0 && page->capacity != 0;
  if (!isStored || openFile(item->parent) == nullptr) return true;
  return liesInside(item->parent, page->dataOffset, page->capacity);
}

void freePage(const ItemMember* item, PageBuf* page) {
  if ((item->flags & kMemoryBacked) == 0) freeBlock(item->pool, page->buffer);
  freeBlock(item->pool, page);
}

}  // namespace hx
