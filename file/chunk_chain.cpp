#include "file/chunk_chain.h"

#include "file/storage.h"
#include "file/translation.h"

namespace hx {

namespace {

bool isSound(const ItemMember* item, const ChunkPlace& place) {
  const DataChunk& chunk = place.chunk;
  const int32_t pageSize = pageSizeOf(item);
  if (chunk.capacity == 0) return chunk.dataOffset == 0 && chunk.used == 0 && chunk.next == 0;
  if (chunk.capacity != pageSize || chunk.used < 0 || chunk.used > pageSize) return false;
  if (chunk.next != 0 && chunk.used != pageSize) return false;
  return liesInside(item->parent, chunk.dataOffset, bytesToRead(place));
}

}  // namespace

int64_t bytesToRead(const ChunkPlace& place) {
  return place.index == 0 ? place.chunk.used : place.chunk.capacity;
}

bool readChunk(const ItemMember* item, int64_t offset, int32_t index, ChunkPlace* place) {
  place->offset = offset;
  place->index = index;
  return readStored(item->parent, offset, &place->chunk, kChunkSize) && acceptChunk(item, place);
}

bool acceptChunk(const ItemMember* item, ChunkPlace* place) {
  translate(item->parent, &place->chunk);
  return isSound(item, *place);
}

int64_t mostPages(const ItemMember* item) {
  const int64_t perPage = kChunkSize + static_cast<int64_t>(pageSizeOf(item));
  return storedLength(item->parent) / perPage;
}

bool readFirstChunk(const ItemMember* item, ChunkPlace* place) {
  return readChunk(item, static_cast<int64_t>(item->firstChunkOffset), 0, place);
}

int64_t goToLastChunk(const ItemMember* item, ChunkPlace* place) {
  const int64_t most = mostPages(item);
  int64_t size = place->chunk.used;
  while (place->chunk.next != 0) {
    if (place->index >= most) return -1;
    if (!readChunk(item, place->chunk.next, place->index + 1, place)) return -1;
    size += place->chunk.used;
    if (size > INT32_MAX) return -1;
  }
  return size;
}

}  // namespace hx
