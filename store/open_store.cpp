#include "store/open_store.h"

#include "file/converters.h"
#include "file/file_stamp.h"
#include "file/load_store.h"
#include "file/storage.h"
#include "records/lock_guard.h"
#include "records/member_table.h"
#include "records/memory.h"
#include "records/slots.h"
#include "records/status.h"
#include "store/close_store.h"
#include "store/page_size.h"
#include "store/purge.h"

namespace hx {

namespace {

constexpr int32_t kLongestComponent = 63;

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

  Store* openNested() {
    Member* found = findMember(membersOf(parent_), name_);
    if (found == nullptr) return wantsToCreate() ? createNested() : fail(kNotFound);
    if (wants(kExclusive)) return fail(kExists);
    if (found->kind != kStoreKind) return fail(wantsToCreate() ? kExists : kNotFound);
    ++asStore(found)->openCount;
    return asStore(found);
  }

  Store* createNested() { return isInBlob(parent_) ? fail(kContradiction) : createRecord(nullptr); }

  Store* openTopLevel() {
    Member* found = findMember(storesOf(instance_), name_);
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
    return openAnew(store);
  }

  Store* shareForReading(Store* store) {
    if (store->openCount == 0) return reopen(store, HX_ACCESS_READ);
    store->openCount += store->openCount < 0 ? -1 : 1;
    return store;
  }

  Store* shareForUpdate(Store* store) {
    if (!isWhole(store) && (store->openCount != 0 || wants(kNoFile))) {
      return fail(store->loadStatus);
    }
    if (isWhole(store) && isForeign(store)) return fail(kOtherEncoding);
    if (store->openCount < 0) {
      --store->openCount;
      return store;
    }
    if (store->openCount > 0) return upgrade(store);
    if (!wants(kNoFile)) return reopen(store, HX_ACCESS_UPDATE);
    store->openCount = -1;
    return store;
  }

  // A store that was read only in part, and is closed, is always loaded anew.
  static bool isWhole(const Store* store) { return store->loadStatus == kOk; }

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

  // Opens the file of a cached store that nobody has open. When it is not as it was left, the tree
  // in memory is worthless and is loaded anew.
  Store* reopen(Store* store, int32_t accessMode) {
    if (!store->hasHadFile && accessMode == HX_ACCESS_READ) return store;
    {
      FileGuard file(openStoreFile(instance_, name_, accessMode));
      if (file.get() == nullptr) return fail(kFileNotOpen);
      if (!store->hasHadFile && holdsStore(file.get())) return fail(kFileNotOpen);
      const FileStamp stamp = stampOf(file.get());
      if (describes(store, stamp)) return adopt(store, file.release(), accessMode);
      // A file that can't be read just now says nothing against the tree, which may hold bytes that
      // no file has.
      if (isWhole(store) && !isKnown(stamp) && holdsStore(file.get())) return fail(kFileNotOpen);
    }
    if (store->openHandles != 0) return fail(kStoreInUse);
    return openAnew(store);
  }

  static bool describes(const Store* store, const FileStamp& stamp) {
    return !store->hasHadFile || (isWhole(store) && sameStamp(stamp, store->stamp));
  }

  static Store* adopt(Store* store, FileHandle* file, int32_t accessMode) {
    store->file = file;
    store->hasHadFile = true;
    store->openCount = accessMode == HX_ACCESS_UPDATE ? -1 : 1;
    return store;
  }

  // A file that is long enough for a header is somebody's store, whether or not it can be read now.
  static bool holdsStore(FileHandle* file) {
    const int64_t length = fileLength(file);
    return length < 0 || length >= kHeaderSize;
  }

  // A caller may pass the record's own name, which therefore outlives the record.
  Store* openAnew(Store* former) {
    char32_t* name = former->name;
    former->name = nullptr;
    former->nameLength = 0;
    dropStore(former);
    Store* store = openUncached();
    freeBlock(instance_->pool, name);
    return store;
  }

  Store* openUncached() {
    *status_ = kOk;
    if (wants(kUpdate | kReplace)) return replaceFile();
    if (wants(kNoFile)) return createOrMiss();
    Store* store = loadItemStore(instance_, name_.characters, name_.length, flags_, status_);
    if (*status_ == kExists) {
      freeBlock(instance_->pool, store);
      return nullptr;
    }
    if (store != nullptr) return takeLoaded(store);
    return *status_ == kOk ? createOrMiss() : nullptr;
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
  // without the rest.
  Store* takeLoaded(Store* store) {
    if (wants(kUpdate)) {
      if (isForeign(store)) *status_ = kOtherEncoding;
      if (*status_ != kOk) {
        closeStoreFile(store);
        dropStore(store);
        return nullptr;
      }
    }
    store->openCount = wants(kUpdate) ? -1 : 1;
    return store;
  }

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
    auto* store = allocateRecord<Store>(instance_->pool);
    if (store == nullptr) return fail(kNoMemory);
    if (!copyName(instance_->pool, asMember(store), name_)) {
      freeBlock(instance_->pool, store);
      return fail(kNoMemory);
    }
    store->kind = kStoreKind;
    store->dirty = 1;
    if (wants(kNoFile)) store->flags = kNoFileStore;
    store->root = parent_ != nullptr ? parent_->root : store;
    store->file = file;
    store->hasHadFile = file != nullptr;
    store->parent = parent_;
    store->extension = instance_;
    store->openCount = parent_ != nullptr ? 1 : -1;
    store->encodingId = instance_->encodingId;
    store->fileEnd = kHeaderSize;
    fillStoreSlots(store);
    insertMember(containerOf(store), asMember(store));
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
