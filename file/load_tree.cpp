#include "file/load_tree.h"

#include "file/header.h"
#include "file/storage.h"
#include "file/translation.h"
#include "records/builders.h"
#include "records/member_table.h"
#include "records/memory.h"

namespace hx {

namespace {

// ---- members

// The ENTRY at `offset`, ready for use; false when it can't be read.
bool readEntry(Store* store, int64_t offset, Entry* entry) {
  if (!readStored(store, offset, entry, kEntrySize)) return false;
  translate(store, entry);
  int64_t& end = store->root->directoryEnd;
  if (end < offset + kEntrySize) end = offset + kEntrySize;
  return true;
}

bool takeStoredName(Pool* pool, Member* member, const Entry& entry) {
  const int32_t length = storedNameLength(entry.name);
  if (!allocateName(pool, member, length)) return false;
  // Unsigned bytes: a name above 127 must not become negative characters.
  for (int32_t i = 0; i < length; ++i)
    member->name[i] = entry.name[i];
  return true;
}

// Names a member by its ENTRY and enters it into its store's table.
Status registerMember(Store* store, Member* member, const Entry& entry) {
  if (!takeStoredName(store->extension->pool, member, entry)) return kNoMemory;
  insertMember(membersOf(store), member);
  return kOk;
}

Status fillNestedStore(Store* parent, Store* store, Entry* entry) {
  store->encodingId = parent->encodingId;
  if (!readEntry(parent, store->directoryOffset, entry)) return kUnreadable;
  return registerMember(parent, asMember(store), *entry);
}

Status fillItem(Store* parent, ItemMember* item, Entry* entry) {
  if (!isInBlob(parent)) item->flags = kInFile;
  if (!readEntry(parent, static_cast<int64_t>(item->entryOffset), entry)) return kUnreadable;
  item->firstChunkOffset = static_cast<uint64_t>(entry->firstLink);
  return registerMember(parent, asMember(item), *entry);
}

Status loadNestedStore(Store* parent, int64_t link, Entry* entry, Store** loaded) {
  Store* store = newStore(parent->extension, parent);
  if (store == nullptr) return kNoMemory;
  store->directoryOffset = targetOf(link);
  const Status status = fillNestedStore(parent, store, entry);
  if (status != kOk) freeBlock(parent->extension->pool, store);
  *loaded = store;
  return status;
}

Status loadItemMember(Store* parent, int64_t link, Entry* entry) {
  ItemMember* item = newItem(parent);
  if (item == nullptr) return kNoMemory;
  item->entryOffset = static_cast<uint64_t>(link);
  const Status status = fillItem(parent, item, entry);
  if (status != kOk) freeItem(item);
  return status;
}

// Everything below a store. A directory never has more entries than the file or the blob has room
// for, so one that goes in circles ends too.
Status loadMembers(Store* top) {
  Entry entry;
  if (!readEntry(top, top->directoryOffset, &entry)) return kUnreadable;
  int64_t entriesLeft = (storedLength(top) - kHeaderSize) / kEntrySize - 1;
  int64_t link = entry.firstLink;
  Store* store = top;
  while (!endsChain(link) || store != top) {
    if (endsChain(link)) {
      makeIndexRoom(membersOf(store));
      if (!readEntry(store, store->directoryOffset, &entry)) return kUnreadable;
      store = store->parent;
      link = entry.next;
      continue;
    }
    if (--entriesLeft < 0) return kUnreadable;
    const bool isItem = leadsToItem(link);
    const Status status =
        isItem ? loadItemMember(store, link, &entry) : loadNestedStore(store, link, &entry, &store);
    if (status != kOk) return status;
    link = isItem ? entry.next : entry.firstLink;
  }
  makeIndexRoom(membersOf(top));
  return kOk;
}

// ---- the top-level store of a file

Status fillTopStore(Store* store, FileHandle* file, Name path, const Header& header) {
  store->file = file;
  store->hasHadFile = true;
  store->fileEnd = fileLength(file);
  copyBytes(store->stamp.header, &header, sizeof(header));
  store->stamp.length = store->fileEnd;
  if (store->fileEnd < kHeaderSize) return kUnreadable;
  const Status status = takeHeader(store, header);
  if (status != kOk) return status;
  return copyName(store->extension->pool, asMember(store), path) ? kOk : kNoMemory;
}

// A header without a directory is a store without members, which gets its ENTRY when it is first
// written.
Status enterTopStore(Store* store) {
  if (store->directoryOffset != 0) return loadDirectory(store);
  store->dirty = 1;
  insertMember(containerOf(store), asMember(store));
  return kOk;
}

LoadedStore refuse(Store* store, Status status) {
  releaseConverters(store);
  freeBlock(store->extension->pool, store);
  return {nullptr, status};
}

}  // namespace

LoadedStore loadStore(ExtensionInstance* instance, Name path, uint32_t flags) {
  const int32_t accessMode = has(flags, kUpdate) ? HX_ACCESS_UPDATE : HX_ACCESS_READ;
  FileGuard file(openStoreFile(instance, path, accessMode));
  if (file.get() == nullptr) return {nullptr, kFileNotOpen};
  Header header;
  if (!readFile(file.get(), 0, &header, kHeaderSize)) return {nullptr, kNotFound};
  Store* store = newStore(instance, nullptr);
  if (store == nullptr) return {nullptr, kNoMemory};
  if (has(flags, kExclusive)) return refuse(store, kExists);
  const Status status = fillTopStore(store, file.get(), path, header);
  if (status != kOk) return refuse(store, status);
  file.release();
  store->loadStatus = enterTopStore(store);
  return {store, static_cast<Status>(store->loadStatus)};
}

Status loadDirectory(Store* store) {
  if (store->parent != nullptr) {
    Entry entry;
    if (!readEntry(store, store->directoryOffset, &entry)) return kUnreadable;
    if (!takeStoredName(store->extension->pool, asMember(store), entry)) return kNoMemory;
  }
  // The top of a blob's tree is reached by its opener alone.
  if ((store->flags & kMemoryBacked) == 0) insertMember(containerOf(store), asMember(store));
  return loadMembers(store);
}

}  // namespace hx
