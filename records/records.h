// The records in memory that every operation works on and that the host sees: the instance,
// stores, items, handles and pages. All come zero-filled from the instance's pool, so a field that
// is not mentioned at creation is zero or null. The described offsets are a binary interface; what
// stands behind the last of them is the module's own.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "host/encoding.h"
#include "host/file_io.h"
#include "host/kernel.h"

namespace hx {

struct ExtensionInstance;
struct Store;
struct ItemMember;
struct ItemHandle;
struct ItemView;
struct PageBuf;
struct FreeExtent;

// 24 opaque bytes that name the encoding of a store's data.
struct EncodingId {
  uint8_t bytes[HX_ENCODING_ID_LENGTH];
};

enum MemberKind : int32_t { kStoreKind = 1, kItemKind = 2 };

// What a Store and an ItemMember begin with, so that one table chains both. Both spell the five
// fields out, because what follows uses the padding behind them; may_alias makes the view legal.
struct [[gnu::may_alias]] Member {
  char32_t* name;      // an own copy; null when empty. A top-level store's is its path as given
  Member* next;        // in the bucket's chain
  int32_t nameLength;  // in characters
  int32_t kind;        // MemberKind
  uint32_t dirty;      // bit 0: created since its store's directory was last written
};

constexpr int32_t kBucketCount = 63;

// Members by the hash of their name; a bucket lists its members from the newest to the oldest.
struct MemberTable {
  Member* buckets[kBucketCount];
};

// One place of an index; empty: null.
struct IndexSlot {
  Member* member;
  uint32_t hash;  // of the member's name, the index's own
};

// Of a member's name: what chooses its chain, and what its table's index goes by. Both are made
// while the name is in the processor's caches: not fetching 100,000 names once more at the first
// search takes a sixth off the first open.
struct MemberHashes {
  uint32_t chained;
  uint32_t indexed;
};

// Finds the members of a large table by a hash of its own (member_index.h). The chains stay what
// they are; without memory for the slots they serve alone.
struct MemberIndex {
  IndexSlot* slots;      // null while the table is small; `mask` + 1 of them, a power of two
  uint32_t mask;         // the low bits that choose a slot
  uint32_t memberCount;  // in the table, also while there are no slots
  uint32_t olderCount;   // of them, those that a newer one of their name hides; while it is filled
  bool isFilled;         // until then the slots are empty, and no search has needed them
};

struct ExtensionInstance {
  char eyeCatcher[4];  // "nevo"; never read
  uint8_t reserved4[20];
  int32_t (*getRequiredVersion)(void* instance, int64_t* a, int64_t* b, int64_t* c);
  int32_t (*getVersion)(void* instance, int64_t* a, int64_t* b, int64_t* c);
  void* reserved40;
  int32_t (*destroy)(void* instance);
  void* reserved56[2];
  Encoding* encodingExtension;  // may be null: `encodingId` is then all zero
  FileIo* fileExtension;
  Pool* pool;  // every allocation of the module
  Lock* lock;  // guards every table, count and page list below this instance
  MemberTable stores;
  EncodingId encodingId;
  int64_t reserved632[4];
  Store* (*openStore)(ExtensionInstance* instance, Store* parent, const char32_t* name,
                      int32_t length, uint32_t flags, int32_t* status);
  ItemHandle* (*openItem)(ExtensionInstance* instance, Store* store, const char32_t* name,
                          int32_t length, uint32_t flags, int32_t* status);
  Store* (*openStoreFromMemory)(ExtensionInstance* instance, const void* blob, uint64_t size,
                                const char32_t* name, int32_t length, uint32_t flags,
                                int32_t* status);

  // Behind what every module of this kind has.
  ItemView* (*openView)(ExtensionInstance* instance, Store* store, const char32_t* name,
                        int32_t length, int32_t* status);
  int32_t (*readItem)(ExtensionInstance* instance, Store* store, const char32_t* name,
                      int32_t length, void* buffer, int32_t capacity, int64_t* size,
                      int32_t* status);
  int64_t (*sizeOfItem)(ItemMember* item, int32_t* status);
  Member* (*findMember)(Store* store, const char32_t* name, int32_t length, int32_t* status);

  // The module's own.
  MemberIndex storeIndex;  // of `stores`
  bool filesReadAt;        // the host's files have `readAt`
};

// Bits of the `flags` of a Store and of an ItemMember.
enum RecordFlag : uint32_t {
  kMemoryBacked = 1,  // top-level store: opened from a blob; item: its pages lie in the blob
  kInFile = 2,        // item: it was loaded from the file's directory
  kNoFileStore = 4,   // store: created in memory only
};

// What a closed store's file was meant to look like when it was last closed here: its header, and
// its length with every write that was tried, so that one which failed shows as well. A file that
// looks otherwise when the store is reopened is not that of the cached tree.
struct FileStamp {
  uint8_t header[40];
  int64_t length;
};

// A store, top-level or nested. File-wide state (file, pageSize, fileEnd, freeList, converters) is
// used on the top-level store alone, reached through `root`.
struct Store {
  char32_t* name;  // the five fields of Member
  Member* next;
  int32_t nameLength;
  int32_t kind;
  uint32_t dirty;
  EncodingId encodingId;  // of the store's data
  MemberTable members;
  // Top-level: 0 closed; n > 0 open for reading by n; -n open for update, n openers in all.
  // Nested: the number of openers.
  int32_t openCount;
  int64_t directoryOffset;  // of this store's own ENTRY; 0: not yet placed
  ExtensionInstance* extension;
  Converter* instanceToStoreConverter;  // top-level: made on first need, released at last close
  Converter* storeToInstanceConverter;  // likewise
  Store* parent;                        // null for a top-level store
  Store* root;                          // the top-level store of the tree; itself for that
  void* file;            // top-level: the open FileHandle, or the blob's address (kMemoryBacked)
  int64_t fileEnd;       // top-level: first offset past all space handed out
  FreeExtent* freeList;  // top-level: released extents
  void (*closeStore)(Store* store);
  void (*closeAndDeleteStore)(Store* store);
  int32_t (*getNextMember)(Store* store, const char32_t* name, int32_t length, char32_t* nameOut,
                           int32_t* lengthOut, int32_t* kindOut);
  uint32_t flags;  // RecordFlag
  int32_t (*path)(Store* store, char32_t* buffer, int32_t* length);
  int32_t (*setPageSize)(Store* store, int32_t size);
  int32_t pageSize;  // bytes; 0: not yet fixed
  void* (*createBlobFromStore)(Store* store, uint64_t* size, Pool* pool);
  uint64_t blobSize;  // bytes, of a store opened from a blob

  // The module's own.
  MemberHashes hashes;      // from when the store was entered into a table
  MemberIndex memberIndex;  // of `members`

  // The module's own, all of the top-level store.
  int32_t loadStatus;    // why the directory was read only in part; kOk when whole
  int32_t openHandles;   // item handles open in the tree; while there are any it is not purged
  int64_t directoryEnd;  // behind the last ENTRY in the file when it was loaded
  bool hasHadFile;       // a file was opened for it at least once; never true in a blob's tree
  bool condemned;        // dropped while handles were open: the last handle's close purges it
  FileStamp stamp;       // its header is valid while the store is cached and closed

  // What bytes may be read from without the lock (file/shared_storage.h): the file while it is open
  // for reading, if the host has `readAt`; the blob; else null. Set with the lock held.
  void* sharedStorage;
  int32_t sharedReads;  // under way; what was shared is closed when they are over
};

// An item of a store.
struct ItemMember {
  char32_t* name;  // the five fields of Member
  Member* next;
  int32_t nameLength;
  int32_t kind;
  uint32_t dirty;
  PageBuf* firstPage;  // pages in memory, by rising index, gaps allowed; null: none
  PageBuf* lastPage;   // the one with the highest index; meaningless while firstPage is null
  int32_t size;        // bytes
  Pool* pool;
  ExtensionInstance* extension;
  Store* parent;
  uint64_t firstChunkOffset;  // of the first DATACHUNK; 0: not yet placed
  uint64_t entryOffset;       // of the item's ENTRY; 0: not yet placed
  int32_t openCount;          // 0; n > 0: n readers; -1: a writer
  int32_t (*write)(ItemHandle* handle, const void* buffer, int32_t length, int32_t* status);
  uint32_t (*read)(ItemHandle* handle, void* buffer, int32_t length, void* conversionArgument,
                   int32_t* status);
  int32_t (*close)(ItemHandle* handle);
  uint32_t flags;  // RecordFlag

  // The module's own.
  MemberHashes hashes;  // from when the item was entered into a table
  bool isSizeKnown;     // `size` is the item's length, whether or not a page is in memory
  int32_t pageHolders;  // views that know pages by their address: until then no page leaves memory
};

// One opening of an item; used by one thread at a time.
struct ItemHandle {
  ItemMember* item;
  int32_t position;  // of the next byte to read or write
  // The page that holds `position`. A reader at the item's end, and a handle whose last move to the
  // next page failed, stands on the page before. Null: opened neither for reading nor for update,
  // or a writer that got no memory for its next page.
  PageBuf* page;
  uint32_t access;  // the module's own: kRead, kUpdate or 0, as opened
};

enum PageFlag : uint32_t { kPageDirty = 1 };

// A page of an item in memory.
struct PageBuf {
  PageBuf* next;
  uint8_t* buffer;     // as many bytes as the page size; inside the blob for a blob's item
  int64_t dataOffset;  // where the bytes lie in the file; 0: no space yet
  int32_t capacity;    // these four are a copy of the page's DATACHUNK
  int32_t used;
  int64_t nextChunkOffset;
  int64_t chunkOffset;  // of the page's own DATACHUNK; 0: none yet
  uint32_t flags;       // PageFlag; dirty: memory holds bytes that the file does not
  int32_t useCount;     // handles that stand on the page
  int32_t index;        // page n holds the bytes from n x page size on
};

// A released extent of a file.
struct FreeExtent {
  int64_t offset;
  int64_t length;  // 0: an empty node, which the next release fills
  int64_t keep;    // nonzero: the node stays in the list when its extent is handed out
  FreeExtent* next;
};

inline Member* asMember(Store* store) {
  return reinterpret_cast<Member*>(store);
}
inline Member* asMember(ItemMember* item) {
  return reinterpret_cast<Member*>(item);
}
inline Store* asStore(Member* member) {
  return reinterpret_cast<Store*>(member);
}
inline ItemMember* asItem(Member* member) {
  return reinterpret_cast<ItemMember*>(member);
}

inline bool isRoot(const Store* store) {
  return store->root == store;
}
inline bool isInBlob(const Store* store) {
  return (store->root->flags & kMemoryBacked) != 0;
}

// Pages are sized by the top-level store's value.
inline int32_t pageSizeOf(const ItemMember* item) {
  return item->parent->root->pageSize;
}

// The tree's open file, or null. A blob's address in `file` is never taken for one.
inline FileHandle* fileOf(const Store* store) {
  return isInBlob(store) ? nullptr : static_cast<FileHandle*>(store->root->file);
}

// The blob that the tree was opened from, or null.
inline const uint8_t* blobOf(const Store* store) {
  return isInBlob(store) ? static_cast<const uint8_t*>(store->root->file) : nullptr;
}

static_assert(sizeof(EncodingId) == 24);
static_assert(offsetof(Member, name) == 0);
static_assert(offsetof(Member, next) == 8);
static_assert(offsetof(Member, nameLength) == 16);
static_assert(offsetof(Member, kind) == 20);
static_assert(offsetof(Member, dirty) == 24);
static_assert(offsetof(ExtensionInstance, eyeCatcher) == 0);
static_assert(offsetof(ExtensionInstance, getRequiredVersion) == 24);
static_assert(offsetof(ExtensionInstance, getVersion) == 32);
static_assert(offsetof(ExtensionInstance, destroy) == 48);
static_assert(offsetof(ExtensionInstance, encodingExtension) == 72);
static_assert(offsetof(ExtensionInstance, fileExtension) == 80);
static_assert(offsetof(ExtensionInstance, pool) == 88);
static_assert(offsetof(ExtensionInstance, lock) == 96);
static_assert(offsetof(ExtensionInstance, stores) == 104);
static_assert(offsetof(ExtensionInstance, encodingId) == 608);
static_assert(offsetof(ExtensionInstance, openStore) == 664);
static_assert(offsetof(ExtensionInstance, openItem) == 672);
static_assert(offsetof(ExtensionInstance, openStoreFromMemory) == 680);
static_assert(offsetof(ExtensionInstance, openView) == 688);
static_assert(offsetof(ExtensionInstance, readItem) == 696);
static_assert(offsetof(ExtensionInstance, sizeOfItem) == 704);
static_assert(offsetof(ExtensionInstance, findMember) == 712);
static_assert(offsetof(Store, name) == 0);
static_assert(offsetof(Store, next) == 8);
static_assert(offsetof(Store, nameLength) == 16);
static_assert(offsetof(Store, kind) == 20);
static_assert(offsetof(Store, dirty) == 24);
static_assert(offsetof(Store, encodingId) == 28);
static_assert(offsetof(Store, members) == 56);
static_assert(offsetof(Store, openCount) == 560);
static_assert(offsetof(Store, directoryOffset) == 568);
static_assert(offsetof(Store, extension) == 576);
static_assert(offsetof(Store, instanceToStoreConverter) == 584);
static_assert(offsetof(Store, storeToInstanceConverter) == 592);
static_assert(offsetof(Store, parent) == 600);
static_assert(offsetof(Store, root) == 608);
static_assert(offsetof(Store, file) == 616);
static_assert(offsetof(Store, fileEnd) == 624);
static_assert(offsetof(Store, freeList) == 632);
static_assert(offsetof(Store, closeStore) == 640);
static_assert(offsetof(Store, closeAndDeleteStore) == 648);
static_assert(offsetof(Store, getNextMember) == 656);
static_assert(offsetof(Store, flags) == 664);
static_assert(offsetof(Store, path) == 672);
static_assert(offsetof(Store, setPageSize) == 680);
static_assert(offsetof(Store, pageSize) == 688);
static_assert(offsetof(Store, createBlobFromStore) == 696);
static_assert(offsetof(Store, blobSize) == 704);
static_assert(offsetof(Store, hashes) == 712);
static_assert(offsetof(ItemMember, name) == 0);
static_assert(offsetof(ItemMember, next) == 8);
static_assert(offsetof(ItemMember, nameLength) == 16);
static_assert(offsetof(ItemMember, kind) == 20);
static_assert(offsetof(ItemMember, dirty) == 24);
static_assert(offsetof(ItemMember, firstPage) == 32);
static_assert(offsetof(ItemMember, lastPage) == 40);
static_assert(offsetof(ItemMember, size) == 48);
static_assert(offsetof(ItemMember, pool) == 56);
static_assert(offsetof(ItemMember, extension) == 64);
static_assert(offsetof(ItemMember, parent) == 72);
static_assert(offsetof(ItemMember, firstChunkOffset) == 80);
static_assert(offsetof(ItemMember, entryOffset) == 88);
static_assert(offsetof(ItemMember, openCount) == 96);
static_assert(offsetof(ItemMember, write) == 104);
static_assert(offsetof(ItemMember, read) == 112);
static_assert(offsetof(ItemMember, close) == 120);
static_assert(offsetof(ItemMember, flags) == 128);
static_assert(offsetof(ItemHandle, item) == 0);
static_assert(offsetof(ItemHandle, position) == 8);
static_assert(offsetof(ItemHandle, page) == 16);
static_assert(offsetof(ItemHandle, access) == 24);
static_assert(offsetof(PageBuf, next) == 0);
static_assert(offsetof(PageBuf, buffer) == 8);
static_assert(offsetof(PageBuf, dataOffset) == 16);
static_assert(offsetof(PageBuf, capacity) == 24);
static_assert(offsetof(PageBuf, used) == 28);
static_assert(offsetof(PageBuf, nextChunkOffset) == 32);
static_assert(offsetof(PageBuf, chunkOffset) == 40);
static_assert(offsetof(PageBuf, flags) == 48);
static_assert(offsetof(PageBuf, useCount) == 52);
static_assert(offsetof(PageBuf, index) == 56);
static_assert(offsetof(FreeExtent, offset) == 0);
static_assert(offsetof(FreeExtent, length) == 8);
static_assert(offsetof(FreeExtent, keep) == 16);
static_assert(offsetof(FreeExtent, next) == 24);

}  // namespace hx
