#include "file/write_pages.h"

#include "file/disk_space.h"
#include "file/item_pages.h"

namespace hx {

namespace {

int64_t placeChunk(const ItemMember* item, PageBuf* page) {
  if (page->chunkOffset == 0) page->chunkOffset = allocateDiskSpace(item->parent, kChunkSize);
  return page->chunkOffset;
}

// A last page may be full: then its successor could not be added.
int32_t usedBytes(const ItemMember* item, const PageBuf* page, int32_t pageSize) {
  if (page->next != nullptr) return pageSize;
  return static_cast<int32_t>(item->size - static_cast<int64_t>(page->index) * pageSize);
}

// The order in which space is taken is part of the format: a page's bytes before the next record.
void writePage(ItemMember* item, PageBuf* page, const Image& image) {
  const int32_t pageSize = pageSizeOf(item);
  placeChunk(item, page);
  if (page->dataOffset == 0) page->dataOffset = allocateDiskSpace(item->parent, pageSize);
  page->capacity = pageSize;
  page->used = usedBytes(item, page, pageSize);
  page->nextChunkOffset = page->next == nullptr ? 0 : placeChunk(item, page->next);
  const DataChunk chunk{page->dataOffset, page->capacity, page->used, page->nextChunkOffset};
  image.write(page->chunkOffset, &chunk, kChunkSize);
  image.write(page->dataOffset, page->buffer, pageSize);
}

void writeEmptyItem(ItemMember* item, const Image& image) {
  const DataChunk nothing = {};
  image.write(static_cast<int64_t>(item->firstChunkOffset), &nothing, kChunkSize);
  if (item->firstPage != nullptr && !image.isBlob()) item->firstPage->flags &= ~kPageDirty;
}

}  // namespace

void writePages(ItemMember* item, const Image& image) {
  if (item->firstChunkOffset == 0) {
    item->firstChunkOffset = static_cast<uint64_t>(allocateDiskSpace(item->parent, kChunkSize));
  }
  // An item from the file that was not opened has size 0 too; its record is not ours to clear.
  if (item->size == 0 && (item->flags & kInFile) == 0) return writeEmptyItem(item, image);
  PageBuf* first = item->firstPage;
  if (first != nullptr && first->index == 0) {
    first->chunkOffset = static_cast<int64_t>(item->firstChunkOffset);
  }
  for (PageBuf* page = first; page != nullptr; page = page->next) {
    if (!image.isBlob() && !isDirty(page)) continue;
    writePage(item, page, image);
    if (!image.isBlob()) page->flags &= ~kPageDirty;
  }
}

}  // namespace hx
