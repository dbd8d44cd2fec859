#include "file/load_item.h"

#include "file/record_maps.h"
#include "file/storage.h"
#include "file/translate.h"
#include "store/memory.h"

namespace hx {

namespace {

// Where a walk over an item's chain stands.
struct ChainPlace {
  int64_t offset;  // of the record
  int32_t index;
  int64_t size;  // of all pages up to and with this one
  DataChunk chunk;
};

// How many bytes of a page block are read: an item's only page may have been stored short.
int64_t bytesToRead(const DataChunk& chunk, int32_t index) {
  return index == 0 ? chunk.used : chunk.capacity;
}

bool isSound(const ItemMember* item, const DataChunk& chunk, int32_t index) {
  const int32_t pageSize = item->parent->root->pageSize;
  if (chunk.capacity == 0) return chunk.dataOffset == 0 && chunk.used == 0 && chunk.next == 0;
  if (chunk.capacity != pageSize || chunk.used < 0 || chunk.used > pageSize) return false;
  if (chunk.next != 0 && chunk.used != pageSize) return false;
  // A page may be rewritten whole in a tree that is open for update.
  const bool isUpdated = item->parent->root->openCount < 0;
  const int64_t extent = isUpdated ? chunk.capacity : bytesToRead(chunk, index);
  return liesInside(item->parent, chunk.dataOffset, extent);
}

bool readPlace(const ItemMember* item, ChainPlace* place) {
  if (!readChunk(item, place->offset, place->index, &place->chunk)) return false;
  place->size += place->chunk.used;
  return place->size <= INT32_MAX;
}

// Goes on to the chain's end. Every full page needs a record and a block of its own, so a chain
// longer than the file has room for goes in circles.
bool walkToEnd(const ItemMember* item, ChainPlace* place) {
  const int64_t perPage = kChunkSize + static_cast<int64_t>(item->parent->root->pageSize);
  const int64_t mostPages = storedLength(item->parent) / perPage;
  while (place->chunk.next != 0) {
    if (place->index >= mostPages) return false;
    place->offset = place->chunk.next;
    ++place->index;
    if (!readPlace(item, place)) return false;
  }
  return true;
}

// The page that an open wants, and the item's size.
PageBuf* loadWantedPage(const ItemMember* item, bool wantsFirst, ChainPlace* place,
                        Status* status) {
  *status = kUnreadable;
  if (!readPlace(item, place)) return nullptr;
  if (!wantsFirst) {
    if (!walkToEnd(item, place)) return nullptr;
    return loadPage(item, place->chunk, place->offset, place->index, nullptr, status);
  }
  PageBuf* page = loadPage(item, place->chunk, place->offset, 0, nullptr, status);
  if (page == nullptr || walkToEnd(item, place)) return page;
  freePage(item, page);
  *status = kUnreadable;
  return nullptr;
}

int32_t loadOnePage(ItemMember* item, bool wantsFirst) {
  ChainPlace place = {static_cast<int64_t>(item->firstChunkOffset), 0, 0, {}};
  Status status = kOk;
  PageBuf* page = loadWantedPage(item, wantsFirst, &place, &status);
  if (page == nullptr) return status == kNoMemory ? -1 : status;
  item->firstPage = page;
  item->lastPage = page;
  item->size = static_cast<int32_t>(place.size);
  return 0;
}

// Points the page at its bytes in the blob, or reads them into a buffer of its own.
Status fillPage(const ItemMember* item, PageBuf* page) {
  if (const uint8_t* blob = openBlob(item->parent)) {
    // An item without a byte has no place for its page; its dataOffset is 0. Nobody writes through
    // the buffer of a blob's page.
    page->buffer = const_cast<uint8_t*>(blob) + page->dataOffset;
    return kOk;
  }
  if (page->buffer == nullptr) {
    const auto pageSize = static_cast<uint64_t>(item->parent->root->pageSize);
    page->buffer = static_cast<uint8_t*>(allocateBlock(item->pool, pageSize));
  }
  if (page->buffer == nullptr) return kNoMemory;
  const DataChunk chunk{page->dataOffset, page->capacity, page->used, page->nextChunkOffset};
  const int64_t count = bytesToRead(chunk, page->index);
  if (count == 0 || readStored(item->parent, page->dataOffset, page->buffer, count)) return kOk;
  return kUnreadable;
}

}  // namespace

extern "C" int32_t loadItem(ItemMember* item, uint32_t flags) {
  if ((item->flags & kMemoryBacked) != 0) return loadItemFromMemory(item, flags);
  if (openFile(item->parent) == nullptr) return kFileNotOpen;
  return loadOnePage(item, has(flags, kRead));
}

extern "C" int32_t loadItemFromMemory(ItemMember* item, uint32_t flags) {
  if (openBlob(item->parent) == nullptr) return kFileNotOpen;
  DataChunk first = {};
  const auto offset = static_cast<int64_t>(item->firstChunkOffset);
  if (!readChunk(item, offset, 0, &first)) return kUnreadable;
  const bool isOnlyPage = first.used < item->parent->root->pageSize;
  if (!isOnlyPage && !has(flags, kRead)) return 0;
  return loadOnePage(item, true);
}

bool readChunk(const ItemMember* item, int64_t offset, int32_t index, DataChunk* chunk) {
  if (!readStored(item->parent, offset, chunk, kChunkSize)) return false;
  translateStructure(item->parent, chunk, kChunkSize, DATACHUNK_map);
  return isSound(item, *chunk, index);
}

PageBuf* loadPage(const ItemMember* item, const DataChunk& chunk, int64_t offset, int32_t index,
                  PageBuf* spare, Status* status) {
  *status = kNoMemory;
  PageBuf* page = spare != nullptr ? spare : allocateRecord<PageBuf>(item->pool);
  if (page == nullptr) return nullptr;
  uint8_t* buffer = page->buffer;
  *page = {};
  page->buffer = buffer;
  page->dataOffset = chunk.dataOffset;
  page->capacity = chunk.capacity;
  page->used = chunk.used;
  page->nextChunkOffset = chunk.next;
  page->chunkOffset = offset;
  page->index = index;
  *status = fillPage(item, page);
  if (*status == kOk) return page;
  freePage(item, page);
  return nullptr;
}

Status loadFirstPage(ItemMember* item) {
  if (item->parent->root->file == nullptr) return kFileNotOpen;
  const auto offset = static_cast<int64_t>(item->firstChunkOffset);
  DataChunk chunk = {};
  if (!readChunk(item, offset, 0, &chunk)) return kUnreadable;
  Status status = kOk;
  PageBuf* page = loadPage(item, chunk, offset, 0, nullptr, &status);
  if (page == nullptr) return status;
  page->next = item->firstPage;
  item->firstPage = page;
  return kOk;
}

void freePage(const ItemMember* item, PageBuf* page) {
  if ((item->flags & kMemoryBacked) == 0) freeBlock(item->pool, page->buffer);
  freeBlock(item->pool, page);
}

}  // namespace hx
