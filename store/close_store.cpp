#include "store/close_store.h"

#include "file/disk_space.h"
#include "file/header.h"
#include "file/translation.h"
#include "file/write_directory.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/status.h"
#include "store/purge.h"

namespace hx {

namespace {

void writeBack(Store* store) {
  if (store->directoryOffset == 0) store->directoryOffset = allocateDiskSpace(store, kEntrySize);
  const Header header = currentHeader(store);
  writeStored(store, 0, &header, kHeaderSize);
  writeTree(store, Image(store, nullptr), 0, 0);
  store->dirty &= ~1u;
  writeStored(store, 0, &header, kHeaderSize);
  copyBytes(store->stamp.header, &header, sizeof(header));
}

void countOff(Store* store) {
  if (store->openCount > 0) --store->openCount;
  if (store->openCount < 0) ++store->openCount;
}

}  // namespace

extern "C" void hxcrateCloseStore(Store* store) {
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return;
  const bool wasUpdated = store->openCount < 0;
  countOff(store);
  if (store->openCount != 0 || !isRoot(store)) return;
  if (wasUpdated && fileOf(store) != nullptr) writeBack(store);
  closeStoreFile(store);
  releaseConverters(store);
  if (isInBlob(store)) dropStore(store);
}

extern "C" int32_t hxcrateWriteBack(Store* store) {
  Store* root = store->root;
  if (root->openCount >= 0 || fileOf(root) == nullptr) return kContradiction;
  writeBack(root);
  return kOk;
}

extern "C" void hxcrateForgetStore(ExtensionInstance* instance, const char32_t* name,
                                   int32_t length) {
  const LockGuard lock(instance->lock);
  if (!lock.taken()) return;
  Member* found = findMember(storesOf(instance), makeName(name, length));
  if (found == nullptr || asStore(found)->openCount != 0) return;
  if (asStore(found)->openHandles == 0) dropStore(asStore(found));
}

extern "C" void hxcrateCloseAndDeleteStore(Store* store) {
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return;
  countOff(store);
  if (store->openCount != 0 || !isRoot(store)) return;
  closeStoreFile(store);
  if (store->hasHadFile) {
    FileIo* io = store->extension->fileExtension;
    io->remove(io, store->name, store->nameLength, 0, 0);
  }
  dropStore(store);
}

}  // namespace hx
