#include "file/load_store.h"

#include "file/converters.h"
#include "file/header.h"
#include "file/load_directory.h"
#include "file/storage.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/slots.h"
#include "records/status.h"

namespace hx {

namespace {

Status fillTopStore(Store* store, ExtensionInstance* instance, FileHandle* file, Name path,
                    const Header& header) {
  store->kind = kStoreKind;
  store->root = store;
  store->file = file;
  store->hasHadFile = true;
  store->extension = instance;
  fillStoreSlots(store);
  store->fileEnd = fileLength(file);
  copyBytes(store->stamp.header, &header, sizeof(header));
  store->stamp.length = store->fileEnd;
  if (store->fileEnd < kHeaderSize) return kUnreadable;
  const Status status = takeHeader(store, header);
  if (status != kOk) return status;
  return copyName(instance->pool, asMember(store), path) ? kOk : kNoMemory;
}

// A header without a directory is a store without members, which gets its ENTRY when it is first
// written.
void enterTopStore(Store* store, int32_t* status) {
  ExtensionInstance* instance = store->extension;
  if (store->directoryOffset != 0) return loadDirectory(store, &instance->stores, status);
  store->dirty = 1;
  insertMember(storesOf(instance), asMember(store));
}

}  // namespace

extern "C" Store* loadItemStore(ExtensionInstance* instance, const char32_t* path,
                                int32_t pathLength, uint32_t flags, int32_t* status) {
  const Name name = makeName(path, pathLength);
  FileGuard file(
      openStoreFile(instance, name, has(flags, kUpdate) ? HX_ACCESS_UPDATE : HX_ACCESS_READ));
  if (file.get() == nullptr) return nullptr;
  *status = kOk;
  Header header;
  if (!readFile(file.get(), 0, &header, kHeaderSize)) return nullptr;
  auto* store = allocateRecord<Store>(instance->pool);
  *status = store == nullptr ? kNoMemory : has(flags, kExclusive) ? kExists : kOk;
  if (*status != kOk) return store;
  *status = fillTopStore(store, instance, file.get(), name, header);
  if (*status != kOk) {
    releaseConverters(store);
    freeBlock(instance->pool, store);
    return nullptr;
  }
  file.release();
  enterTopStore(store, status);
  store->loadStatus = *status;
  return store;
}

}  // namespace hx
