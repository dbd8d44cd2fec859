#include "file/disk_space.h"

#include "records/memory.h"

namespace hx {

namespace {

// The link to the first extent of exactly that length, or to the null at the end.
FreeExtent** findExtent(Store* root, int64_t length) {
  FreeExtent** link = &root->freeList;
  while (*link != nullptr && (*link)->length != length)
    link = &(*link)->next;
  return link;
}

int64_t takeExtent(Store* root, FreeExtent** link) {
  FreeExtent* extent = *link;
  const int64_t offset = extent->offset;
  if (extent->keep != 0) {
    extent->length = 0;
  } else {
    *link = extent->next;
    freeBlock(root->extension->pool, extent);
  }
  return offset;
}

}  // namespace

int64_t allocateDiskSpace(Store* store, int32_t length) {
  Store* root = store->root;
  FreeExtent** link = findExtent(root, length);
  if (*link != nullptr) return takeExtent(root, link);
  const int64_t offset = root->fileEnd;
  root->fileEnd += length;
  return offset;
}

void releaseDiskSpace(Store* store, int64_t offset, int32_t length) {
  Store* root = store->root;
  FreeExtent* extent = *findExtent(root, 0);
  if (extent == nullptr) {
    extent = allocateRecord<FreeExtent>(root->extension->pool);
    if (extent == nullptr) return;
    extent->next = root->freeList;
    root->freeList = extent;
  }
  extent->offset = offset;
  extent->length = length;
}

void releaseFreeList(Store* root) {
  while (root->freeList != nullptr) {
    FreeExtent* extent = root->freeList;
    root->freeList = extent->next;
    freeBlock(root->extension->pool, extent);
  }
}

}  // namespace hx
