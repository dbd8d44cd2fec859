#include "store/open_store.h"

#include "file/cut_short.h"
#include "file/format.h"
#include "file/header.h"
#include "file/item_pages.h"
#include "file/load_tree.h"
#include "file/shared_storage.h"
#include "file/storage.h"
#include "file/translation.h"
#include "records/builders.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/status.h"
#include "records/tree_cursor.h"
#include "store/close_store.h"
#include "store/page_size.h"
#include "store/purge.h"

namespace hx {

namespace {

constexpr int32_t kLongestComponent = kStoredNameLength - 1;

// A store that was read only in part, and is closed, is always loaded anew.
bool isWhole(const Store* store) {
  return store->loadStatus == kOk;
}

// A file that is long enough for a header is somebody's store, whether or not it can be read now.
bool holdsStore(FileHandle* file) {
  const int64_t length = fileLength(file);
  return length < 0 || length >= kHeaderSize;
}

// A member that was created while the tree had no file has no place, and bytes that were written
// then have dirty pages.
bool isUnsaved(Member* member) {
  if (member->kind == kStoreKind) return asStore(member)->directoryOffset == 0;
  const ItemMember* item = asItem(member);
  const PageBuf* page = item->firstPage;
  while (page != nullptr && !isDirty(page))
    page = page->next;
  return item->entryOffset == 0 || page != nullptr;
}

// Whether a closed tree holds what no file has.
bool holdsUnsaved(Store* top) {
  for (TreeCursor cursor(top); !cursor.isBehindAll();) {
    if (cursor.member == nullptr) {
      cursor.leave();
    } else if (isUnsaved(cursor.member)) {
      return true;
    } else if (cursor.member->kind == kStoreKind) {
      cursor.enter();
    } else {
      cursor.advance();
    }
  }
  return false;
}

// Drops a store that nobody has open. Its name stays until the end of the scope: a caller may have
// passed the record's own.
class DroppedStore {
 public:
  explicit DroppedStore(Store* store) : pool_(store->extension->pool), name_(store->name) {
    removeMember(containerOf(store), asMember(store));  // is found by its name
    store->name = nullptr;
    store->nameLength = 0;
    dropStore(store);
  }
  ~DroppedStore() { freeBlock(pool_, name_); }
  DroppedStore(const DroppedStore&) = delete;
  DroppedStore& operator=(const DroppedStore&) = delete;

 private:
  Pool* pool_;
  char32_t* name_;
};

// One open without a path to walk, under the instance's lock. Every step returns the store, or null
// with the status set.
class StoreOpener {
 public:
  StoreOpener(ExtensionInstance* instance, Store* parent, Name name, uint32_t flags,
              int32_t* status)
      : instance_(instance), parent_(parent), name_(name), flags_(flags), status_(status) {}

  Store* open() { return parent_ != nullptr ? openNested() : openTopLevel(); }

 private:
  bool wants(uint32_t flags) const { return has(flags_, flags); }
  bool wantsToCreate() const { return wants(kUpdate | kCreate); }

  Store* fail(int32_t status) {
    *status_ = status;
    return nullptr;
  }

  // ---- nested stores

  Store* openNested() {
    Member* found = findToOpen(membersOf(parent_), name_);
    if (found == nullptr) return wantsToCreate() ? createNested() : fail(kNotFound);
    if (wants(kExclusive)) return fail(kExists);
    if (found->kind != kStoreKind) return fail(wantsToCreate() ? kExists : kNotFound);
    ++asStore(found)->openCount;
    return asStore(found);
  }

  Store* createNested() { return isInBlob(parent_) ? fail(kContradiction) : createRecord(nullptr); }

  // ---- top-level stores that are cached

  Store* openTopLevel() {
    Member* found = findToOpen(storesOf(instance_), name_);
    if (found == nullptr) return openUncached();
    Store* store = asStore(found);
    if (wants(kExclusive)) return fail(kExists);
    if (wants(kUpdate | kReplace)) return replaceCached(store);
    if (wants(kUpdate)) return shareForUpdate(store);
    *status_ = store->loadStatus;
    return wants(kRead) ? shareForReading(store) : store;
  }

  Store* replaceCached(Store* store) {
    if (store->openCount != 0 || store->openHandles != 0) return fail(kStoreInUse);
    const DroppedStore former(store);
    return replaceFile();
  }

  Store* shareForReading(Store* store) {
    if (store->openCount == 0) return store->hasHadFile ? reopen(store, HX_ACCESS_READ) : store;
    store->openCount += store->openCount < 0 ? -1 : 1;
    return store;
  }

  Store* shareForUpdate(Store* store) {
    if (isWhole(store) && isForeign(store)) return fail(kOtherEncoding);
    if (store->openCount == 0 && !wants(kNoFile)) {
      return store->hasHadFile ? reopen(store, HX_ACCESS_UPDATE) : giveFile(store);
    }
    if (!isWhole(store)) return fail(store->loadStatus);
    if (store->openCount > 0) return upgrade(store);
    --store->openCount;
    return store;
  }

  // Readers get a file that can be written, and keep their own when there is none to be had. The
  // file at the path must still be theirs: their tree does not describe another one.
  Store* upgrade(Store* store) {
    if (wants(kNoFile)) return fail(kStoreInUse);
    FileGuard file(openStoreFile(instance_, name_, HX_ACCESS_UPDATE));
    if (file.get() == nullptr || !sameStamp(stampOf(file.get()), store->stamp)) {
      return fail(kFileNotOpen);
    }
    closeStoreFile(store);
    store->file = file.release();
    store->openCount = -store->openCount - 1;
    return store;
  }

  // A store that has lived in memory only is to be written to the file of its name, which must not
  // be somebody else's store.
  Store* giveFile(Store* store) {
    FileGuard file(openStoreFile(instance_, name_, HX_ACCESS_UPDATE));
    if (file.get() == nullptr || holdsStore(file.get())) return fail(kFileNotOpen);
    return adopt(store, file, HX_ACCESS_UPDATE);
  }

  // Opens the file of a store that nobody has open, and takes the tree for it when the file is as
  // it was left. Else the tree is loaded anew.
  Store* reopen(Store* store, int32_t accessMode) {
    {
      FileGuard file(openStoreFile(instance_, name_, accessMode));
      if (file.get() == nullptr) return fail(kFileNotOpen);
      const FileStamp found = stampOf(file.get());
      if (isWhole(store) && sameStamp(found, store->stamp)) return adopt(store, file, accessMode);
      if (isWhole(store) && !mayBeGivenUp(store, found, file.get())) return fail(kFileNotOpen);
    }
    if (store->openHandles != 0) return fail(kStoreInUse);
    const DroppedStore former(store);
    return loadFile();
  }

  // Not while the tree holds what no file has. And a file that can't be read just now says nothing
  // against it.
  static bool mayBeGivenUp(Store* store, const FileStamp& found, FileHandle* file) {
    return !holdsUnsaved(store) && (isKnown(found) || !holdsStore(file));
  }

  static Store* adopt(Store* store, FileGuard& file, int32_t accessMode) {
    store->file = file.release();
    store->hasHadFile = true;
    store->openCount = accessMode == HX_ACCESS_UPDATE ? -1 : 1;
    shareStorage(store);
    return store;
  }

  // ---- top-level stores that are not

  Store* openUncached() {
    if (wants(kUpdate | kReplace)) return replaceFile();
    return wants(kNoFile) ? createOrMiss() : loadFile();
  }

  Store* loadFile() {
    const LoadedStore loaded = loadStore(instance_, name_, flags_);
    *status_ = loaded.status;
    if (loaded.store != nullptr) return takeLoaded(loaded.store);
    const bool isNone = loaded.status == kFileNotOpen || loaded.status == kNotFound;
    return isNone ? createOrMiss() : nullptr;
  }

  Store* replaceFile() {
    if (!wants(kNoFile)) {
      FileIo* io = instance_->fileExtension;
      const int32_t result = io->remove(io, name_.characters, name_.length, 0, 0);
      if (result == HX_REMOVE_NO_PERMISSION || result == HX_REMOVE_IN_USE ||
          result == HX_REMOVE_NOT_REGULAR || result == HX_REMOVE_IO_ERROR) {
        return fail(result);
      }
    }
    return createOrMiss();
  }

  // What was read only in part can be read, but never updated: its directory would be written back
  // without the rest. Nor is a file that was cut short.
  Store* takeLoaded(Store* store) {
    if (wants(kUpdate)) {
      if (isForeign(store)) *status_ = kOtherEncoding;
      if (*status_ == kOk && isCutShort(store)) *status_ = kUnreadable;
      if (*status_ != kOk) {
        closeStoreFile(store);
        dropStore(store);
        return nullptr;
      }
    }
    store->openCount = wants(kUpdate) ? -1 : 1;
    shareStorage(store);
    return store;
  }

  // ---- new ones

  Store* createOrMiss() { return wantsToCreate() ? createTopLevel() : fail(kNotFound); }

  Store* createTopLevel() {
    if (wants(kNoFile)) return createRecord(nullptr);
    FileGuard file(openStoreFile(instance_, name_, HX_ACCESS_UPDATE));
    if (file.get() == nullptr || holdsStore(file.get())) return fail(kFileNotOpen);
    Store* store = createRecord(file.get());
    if (store != nullptr) file.release();
    return store;
  }

  Store* createRecord(FileHandle* file) {
    Store* store = newStore(instance_, parent_);
    if (store == nullptr) return fail(kNoMemory);
    if (!copyName(instance_->pool, asMember(store), name_)) {
      freeBlock(instance_->pool, store);
      return fail(kNoMemory);
    }
    store->dirty = 1;
    if (wants(kNoFile)) store->flags = kNoFileStore;
    store->file = file;
    store->hasHadFile = file != nullptr;
    store->openCount = parent_ != nullptr ? 1 : -1;
    store->encodingId = instance_->encodingId;
    store->fileEnd = kHeaderSize;
    insertMember(containerOf(store), asMember(store));
    *status_ = kOk;
    return store;
  }

  ExtensionInstance* instance_;
  Store* parent_;
  Name name_;
  uint32_t flags_;
  int32_t* status_;
};

Store* openOne(ExtensionInstance* instance, Store* parent, Name name, uint32_t flags,
               int32_t* status) {
  if (parent != nullptr) fixPageSize(parent);
  *status = kOk;
  const LockGuard lock(instance->lock);
  if (!lock.taken()) {
    *status = kNotLocked;
    return nullptr;
  }
  return StoreOpener(instance, parent, name, flags, status).open();
}

}  // namespace

extern "C" Store* hxcrateOpenStore(ExtensionInstance* instance, Store* parent, const char32_t* name,
                                   int32_t length, uint32_t flags, int32_t* status) {
  *status = kContradiction;
  if (contradictory(flags)) return nullptr;
  const Name path = makeName(name, length);
  if (parent == nullptr) return openOne(instance, nullptr, path, flags, status);
  PathWalk stores(instance, parent);
  *status = stores.walk(path);
  fixPageSize(stores.container());  // also for a name that is too long
  if (*status != kOk) return nullptr;
  return openOne(instance, stores.container(), stores.lastName(), flags, status);
}

int32_t PathWalk::walk(Name path) {
  lastName_ = path;
  for (int32_t slash = findSlash(path); slash >= 0; slash = findSlash(lastName_)) {
    if (slash > kLongestComponent) return kNameTooLong;
    const Name component = makeName(lastName_.characters, slash);
    int32_t status = kOk;
    Store* store = openOne(instance_, container(), component, kRead, &status);
    if (store == nullptr) return status;
    innermost_ = store;
    lastName_ = tailOf(lastName_, slash + 1);
  }
  return kOk;
}

PathWalk::~PathWalk() {
  for (Store* store = innermost_; store != start_ && store != nullptr;) {
    Store* outer = store->parent;
    hxcrateCloseStore(store);
    store = outer;
  }
}

}  // namespace hx
