#include "blob/open_blob.h"

#include "file/header.h"
#include "file/load_tree.h"
#include "file/shared_storage.h"
#include "file/storage.h"
#include "records/builders.h"
#include "records/memory.h"
#include "records/status.h"
#include "store/purge.h"

namespace hx {

namespace {

// The name comes behind the check: damage is damage, whether or not there is memory.
Status readHeader(Store* store, const void* blob) {
  Header header;
  copyBytes(&header, blob, sizeof(header));
  const Status status = takeHeader(store, header);
  if (status != kOk || store->directoryOffset == 0) return status;
  return liesInside(store, store->directoryOffset, kEntrySize) ? kOk : kUnreadable;
}

Status loadBlobStore(Store* store, const void* blob, Name name) {
  const Status status = readHeader(store, blob);
  if (status != kOk || store->directoryOffset == 0) return status;
  if (!copyName(store->extension->pool, asMember(store), name)) return kNoMemory;
  return loadDirectory(store);
}

}  // namespace

extern "C" Store* hxcrateOpenStoreFromMemory(ExtensionInstance* instance, const void* blob,
                                             uint64_t size, const char32_t* name, int32_t length,
                                             uint32_t flags, int32_t* status) {
  *status = kContradiction;
  if ((flags & (kUpdate | kReplace | kExclusive)) != 0) return nullptr;
  *status = kUnreadable;
  if (blob == nullptr || size < sizeof(Header)) return nullptr;
  *status = kNoMemory;
  Store* store = newStore(instance, nullptr);
  if (store == nullptr) return nullptr;
  store->flags = kMemoryBacked;
  store->file = const_cast<void*>(blob);  // never written to
  store->blobSize = size;
  store->openCount = 1;
  shareStorage(store);
  *status = loadBlobStore(store, blob, makeName(name, length));
  if (*status == kOk) return store;
  dropStore(store);
  return nullptr;
}

}  // namespace hx
