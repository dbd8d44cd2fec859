#include "blob/create_blob.h"

#include "file/disk_space.h"
#include "file/header.h"
#include "file/write_directory.h"
#include "records/memory.h"
#include "records/tree_cursor.h"

namespace hx {

namespace {

// A nested store's places lie among the rest of its root's; and pages of a store that has had a
// file may be in that file alone.
bool canBecomeBlob(const Store* store) {
  return isRoot(store) && (store->flags & kNoFileStore) != 0 && !store->hasHadFile;
}

// The first page gets a record of its own here, although the one at firstChunkOffset will be
// written: those 24 bytes stay unused.
void placePages(ItemMember* item) {
  Store* store = item->parent;
  for (PageBuf* page = item->firstPage; page != nullptr; page = page->next) {
    if (page->chunkOffset == 0) page->chunkOffset = allocateDiskSpace(store, kChunkSize);
    if (page->dataOffset == 0) page->dataOffset = allocateDiskSpace(store, store->root->pageSize);
  }
}

}  // namespace

extern "C" void* hxcrateCreateBlobFromStore(Store* store, uint64_t* size, Pool* pool) {
  if (!canBecomeBlob(store)) return nullptr;
  if (store->directoryOffset == 0) store->directoryOffset = allocateDiskSpace(store, kEntrySize);
  placeTree(store);
  *size = static_cast<uint64_t>(store->fileEnd);
  void* blob = allocateBlock(pool, *size);
  if (blob == nullptr) return nullptr;
  const Header header = currentHeader(store);
  copyBytes(blob, &header, sizeof(header));
  writeTree(store, Image(store, static_cast<uint8_t*>(blob)), 0, 0);
  return blob;
}

void placeTree(Store* store) {
  TreeCursor cursor(store);
  while (!cursor.isBehindAll()) {
    if (cursor.member == nullptr) {
      cursor.leave();
      continue;
    }
    placeMember(cursor.member, cursor.store);
    if (cursor.member->kind == kStoreKind) {
      cursor.enter();
    } else {
      placePages(asItem(cursor.member));
      cursor.advance();
    }
  }
}

}  // namespace hx
