#include "module/exports.h"

#include "blob/create_blob.h"
#include "file/disk_space.h"
#include "file/item_pages.h"
#include "file/load_tree.h"
#include "file/translation.h"
#include "file/write_directory.h"
#include "file/write_pages.h"
#include "records/builders.h"
#include "records/member_table.h"
#include "store/purge.h"

namespace hx::exported {

namespace {

int32_t resultOf(Status status) {
  return status == kNoMemory ? -1 : status;
}

}  // namespace

extern "C" {

Member* lookup(const MemberTable* table, int32_t bucket, const char32_t* name, int32_t length) {
  return findInChain(table->buckets[bucket], makeName(name, length));
}

int32_t translateStructure(Store* store, void* record, int32_t length, const RecordMapEntry* map) {
  if (length < 0 || length > kLongestRecord) return -1;
  return translate(store, record, length, map) ? 0 : -1;
}

Store* loadItemStore(ExtensionInstance* instance, const char32_t* path, int32_t pathLength,
                     uint32_t flags, int32_t* status) {
  const LoadedStore loaded = loadStore(instance, makeName(path, pathLength), flags);
  if (loaded.status == kFileNotOpen) return nullptr;
  *status = loaded.status == kNotFound ? kOk : loaded.status;
  return loaded.status == kExists ? newStore(instance, nullptr) : loaded.store;
}

void loadDirectory(Store* store, MemberTable* /*table*/, int32_t* status) {
  *status = hx::loadDirectory(store);
}

void loadDirectoryFromMemory(Store* store, MemberTable* /*table*/, uint32_t /*flags*/,
                             int32_t* status) {
  *status = hx::loadDirectory(store);
}

int32_t loadItem(ItemMember* item, uint32_t flags) {
  const bool isInMemory = (item->flags & kMemoryBacked) != 0;
  return isInMemory ? loadItemFromMemory(item, flags) : resultOf(hx::loadItem(item, flags));
}

int32_t loadItemFromMemory(ItemMember* item, uint32_t flags) {
  ChunkPlace first = {};
  const bool isLong = blobOf(item->parent) != nullptr && readFirstChunk(item, &first) &&
                      first.chunk.used == pageSizeOf(item);
  return isLong && !has(flags, kRead) ? 0 : resultOf(hx::loadItem(item, flags));
}

int64_t allocateDiskSpace(Store* store, int32_t length) {
  return hx::allocateDiskSpace(store, length);
}

void releaseDiskSpace(Store* store, int64_t offset, int32_t length) {
  hx::releaseDiskSpace(store, offset, length);
}

int64_t writeDirectory(Store* store, int64_t parentLink, int64_t previousLink) {
  writeTree(store, Image(store->root, nullptr), parentLink, previousLink);
  return store->directoryOffset;
}

void writeItem(ItemMember* item) {
  writePages(item, Image(item->parent->root, nullptr));
}

int64_t calcBlobSize(Store* store) {
  placeTree(store);
  return store->fileEnd;
}

int64_t writeDirectoryToBlob(Store* store, void* blob, int64_t parentLink, int64_t previousLink) {
  const Image image(store->root, static_cast<uint8_t*>(blob));
  writeTree(store, image, parentLink, previousLink);
  return store->directoryOffset;
}

void decrementPageUseCount(ItemMember* item, PageBuf* page) {
  leavePage(item, page);
}

void purgeStore(Store* store) {
  hx::purgeStore(store);
}

void freeMemory(Store* store) {
  hx::freeMembers(store);
}

}  // extern "C"

}  // namespace hx::exported
