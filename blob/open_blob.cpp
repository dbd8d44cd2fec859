#include "blob/open_blob.h"

#include "file/header.h"
#include "file/load_directory.h"
#include "file/shared_storage.h"
#include "file/storage.h"
#include "records/memory.h"
#include "records/slots.h"
#include "records/status.h"
#include "store/purge.h"

namespace hx {

namespace {

void fillBlobStore(Store* store, ExtensionInstance* instance, const void* blob, uint64_t size) {
  store->kind = kStoreKind;
  store->flags = kMemoryBacked;
  store->file = const_cast<void*>(blob);  // never written to
  store->blobSize = size;
  store->root = store;
  store->extension = instance;
  store->openCount = 1;
  fillStoreSlots(store);
  shareStorage(store);
}

// The name comes behind the check: damage is damage, whether or not there is memory.
Status readHeader(Store* store, const void* blob) {
  Header header;
  copyBytes(&header, blob, sizeof(header));
  const Status status = takeHeader(store, header);
  if (status != kOk || store->directoryOffset == 0) return status;
  return liesInside(store, store->directoryOffset, kEntrySize) ? kOk : kUnreadable;
}

int32_t loadBlobStore(Store* store, const void* blob, Name name, uint32_t flags) {
  ExtensionInstance* instance = store->extension;
  int32_t status = readHeader(store, blob);
  if (status != kOk || store->directoryOffset == 0) return status;
  if (!copyName(instance->pool, asMember(store), name)) return kNoMemory;
  loadDirectoryFromMemory(store, &instance->stores, flags, &status);
  return status;
}

}  // namespace

extern "C" Store* hxcrateOpenStoreFromMemory(ExtensionInstance* instance, const void* blob,
                                             uint64_t size, const char32_t* name, int32_t length,
                                             uint32_t flags, int32_t* status) {
  *status = kContradiction;
  if ((flags & (kUpdate | kReplace | kExclusive)) != 0) return nullptr;
  *status = kUnreadable;
  if (blob == nullptr || size < sizeof(Header)) return nullptr;
  auto* store = allocateRecord<Store>(instance->pool);
  *status = kNoMemory;
  if (store == nullptr) return nullptr;
  fillBlobStore(store, instance, blob, size);
  *status = loadBlobStore(store, blob, makeName(name, length), flags);
  if (*status == kOk) return store;
  dropStore(store);
  return nullptr;
}

extern "C" void loadDirectoryFromMemory(Store* store, MemberTable* table, uint32_t /*flags*/,
                                        int32_t* status) {
  loadDirectory(store, table, status);
}

}  // namespace hx
