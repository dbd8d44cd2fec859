#include "file/load_directory.h"

#include "file/storage.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/slots.h"
#include "records/status.h"

namespace hx {

namespace {

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
  store->kind = kStoreKind;
  store->parent = parent;
  store->root = parent->root;
  store->extension = parent->extension;
  store->encodingId = parent->encodingId;
  fillStoreSlots(store);
  if (!readEntry(parent, store->directoryOffset, entry)) return kUnreadable;
  return registerMember(parent, asMember(store), *entry);
}

Status fillItem(Store* parent, ItemMember* item, Entry* entry) {
  item->kind = kItemKind;
  item->pool = parent->extension->pool;
  item->extension = parent->extension;
  item->parent = parent;
  item->flags = isInBlob(parent) ? kMemoryBacked : kInFile;
  fillItemSlots(item);
  if (!readEntry(parent, static_cast<int64_t>(item->entryOffset), entry)) return kUnreadable;
  item->firstChunkOffset = static_cast<uint64_t>(entry->firstLink);
  return registerMember(parent, asMember(item), *entry);
}

Status loadNestedStore(Store* parent, int64_t link, Entry* entry, Store** loaded) {
  Pool* pool = parent->extension->pool;
  auto* store = allocateRecord<Store>(pool);
  if (store == nullptr) return kNoMemory;
  store->directoryOffset = targetOf(link);
  const Status status = fillNestedStore(parent, store, entry);
  if (status != kOk) freeBlock(pool, store);
  *loaded = store;
  return status;
}

Status loadItemMember(Store* parent, int64_t link, Entry* entry) {
  Pool* pool = parent->extension->pool;
  auto* item = allocateRecord<ItemMember>(pool);
  if (item == nullptr) return kNoMemory;
  item->entryOffset = static_cast<uint64_t>(link);
  const Status status = fillItem(parent, item, entry);
  if (status != kOk) freeBlock(pool, item);
  return status;
}

// Everything below a store. A directory never has more entries than the file or the blob has room
// for, so one that goes in circles ends too.
int32_t loadMembers(Store* top) {
  Entry entry;
  if (!readEntry(top, top->directoryOffset, &entry)) return kUnreadable;
  int64_t entriesLeft = (storedLength(top) - kHeaderSize) / kEntrySize - 1;
  int64_t link = entry.firstLink;
  Store* store = top;
  while (!endsChain(link) || store != top) {
    if (endsChain(link)) {
      makeIndex(membersOf(store));
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
  makeIndex(membersOf(top));
  return kOk;
}

}  // namespace

extern "C" void loadDirectory(Store* store, MemberTable* /*table*/, int32_t* status) {
  store->kind = kStoreKind;
  if (store->parent != nullptr) {
    Entry entry;
    *status = kUnreadable;
    if (!readEntry(store, store->directoryOffset, &entry)) return;
    *status = kNoMemory;
    if (!takeStoredName(store->extension->pool, asMember(store), entry)) return;
  }
  // The top of a blob's tree is reached by its opener alone.
  if ((store->flags & kMemoryBacked) == 0) insertMember(containerOf(store), asMember(store));
  *status = loadMembers(store);
}

}  // namespace hx
