#include "host/linux/locked_files.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/linux/rollback.h"

namespace hxhost {
namespace {

using std::chrono::microseconds;

// The file was replaced, removed or left unfinished while it was being opened.
constexpr int kTryAgain = -1;

// Whoever replaces files faster than this is not waited for.
constexpr int kMostAttempts = 100;

// Among those before the turnstile chance decides who is next: so all ask equally often. Behind it
// only one waits, or readers together, and the file lies idle until they ask.
constexpr microseconds kPauseBeforeTurnstile{1000};
constexpr microseconds kPauseInTurnstile{250};

// What was opened and locked may no longer be what the path leads to.
int checkStillThere(FileOps& ops, RegularFile& file) {
  const int error = inspectAgain(ops, file);
  return error == ENOENT ? kTryAgain : error;
}

int setLock(FileOps& ops, const RegularFile& file, LockPart part, LockKind kind) {
  const int error = ops.lock(file.descriptor.number(), part, kind);
  return error == EAGAIN ? EBUSY : error;
}

// A place in the turnstile of a file, once it is taken.
class Turn {
 public:
  Turn(FileOps& ops, const RegularFile& file) : ops_(ops), file_(file) {}
  ~Turn() { setLock(ops_, file_, LockPart::kTurnstile, LockKind::kNone); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  int take(LockKind kind) const { return setLock(ops_, file_, LockPart::kTurnstile, kind); }

 private:
  FileOps& ops_;
  const RegularFile& file_;
};

template <typename Attempt>
OpenResult repeatReplaced(Attempt attempt) {
  for (int left = kMostAttempts; left > 0; --left) {
    const OpenResult result = attempt();
    if (result.error != kTryAgain) return result;
  }
  return {EBUSY, FileOperation::kOpen, Holder::kElsewhere};
}

bool takes(bool OpenTerms::*term) {
  const OpenRequest* request = OpenRequest::current();
  return request != nullptr && request->terms().*term;
}

// An absent file is located for an update, which makes one.
int locate(FileOps& ops, const std::string& path, bool forUpdate, RegularFile& file) {
  const int error = locateRegularFile(ops, path, file);
  const bool mayCreate = forUpdate && !takes(&OpenTerms::onlyExisting);
  return error == ENOENT && mayCreate ? 0 : error;
}

}  // namespace

// Lists the file among those that are waited for, unless it is for reading.
class LockedFiles::WaitingUpdate {
 public:
  WaitingUpdate(LockedFiles& files, const FileInfo& file, LockKind kind) : files_(files) {
    if (kind != LockKind::kExclusive) return;
    const std::lock_guard guard(files_.mutex_);
    place_ = files_.waitedFor_.insert(files_.waitedFor_.end(), file);
    isListed_ = true;
  }
  ~WaitingUpdate() {
    if (!isListed_) return;
    const std::lock_guard guard(files_.mutex_);
    files_.waitedFor_.erase(place_);
  }
  WaitingUpdate(const WaitingUpdate&) = delete;
  WaitingUpdate& operator=(const WaitingUpdate&) = delete;

 private:
  LockedFiles& files_;
  std::list<FileInfo>::iterator place_;
  bool isListed_ = false;
};

FileLease& FileLease::operator=(FileLease&& other) noexcept {
  std::swap(files_, other.files_);
  std::swap(locked_, other.locked_);
  std::swap(isUpdate_, other.isUpdate_);
  return *this;
}

int FileLease::release() noexcept {
  if (locked_ == nullptr) return 0;
  const auto files = std::move(files_);
  return files->release(*std::exchange(locked_, nullptr), isUpdate_);
}

OpenResult LockedFiles::open(const std::string& path, bool forUpdate, FileLease& lease) {
  LockWait wait(lockWait_);
  return repeatReplaced([&] { return tryOpen(path, forUpdate, wait, lease); });
}

OpenResult LockedFiles::tryOpen(const std::string& path, bool forUpdate, LockWait& wait,
                                FileLease& lease) {
  if (LockedFile* reserved = findReserved(path, forUpdate)) {
    lease = enter(*reserved, forUpdate);
    return {};
  }
  auto locked = std::make_unique<LockedFile>();
  const int error = locate(*ops_, path, forUpdate, locked->file);
  if (error != 0) return {error};
  if (const auto joined = join(locked->file.info, path, forUpdate, wait, lease)) return *joined;
  const Purpose purpose = forUpdate ? Purpose::kUpdate : Purpose::kRead;
  return openNew(path, purpose, wait, std::move(locked), lease);
}

OpenResult LockedFiles::reserve(const std::string& path, Purpose purpose, FileLease& lease) {
  LockWait wait(lockWait_);
  const OpenResult result = repeatReplaced([&]() -> OpenResult {
    auto locked = std::make_unique<LockedFile>();
    const int error = locate(*ops_, path, purpose != Purpose::kRead, locked->file);
    return error != 0 ? OpenResult{error} : openNew(path, purpose, wait, std::move(locked), lease);
  });
  const bool isOld = result.error == 0 && !lease.file().wasCreated;
  return isOld && takes(&OpenTerms::onlyNew) ? OpenResult{EEXIST} : result;
}

FileLease LockedFiles::enter(LockedFile& locked, bool isUpdate) {
  const std::lock_guard guard(mutex_);
  return enterLocked(locked, isUpdate);
}

FileLease LockedFiles::enterLocked(LockedFile& locked, bool isUpdate) {
  ++locked.users;
  locked.updaters += isUpdate;
  return {shared_from_this(), locked, isUpdate};
}

// Nothing when the file is not open here.
std::optional<OpenResult> LockedFiles::join(const FileInfo& info, const std::string& path,
                                            bool forUpdate, LockWait& wait, FileLease& lease) {
  LockedFile* known = nullptr;
  {
    const std::lock_guard guard(mutex_);
    known = find(info);
    if (known == nullptr) return std::nullopt;
    if (known->updaters > 0) return OpenResult{EBUSY, FileOperation::kOpen, Holder::kUpdaterHere};
    const bool isOtherPath = known->askedPath != path;
    if (forUpdate && isOtherPath)
      return OpenResult{EBUSY, FileOperation::kOpen, Holder::kReadersHere};
    if (forUpdate && !known->file.isWritable) return OpenResult{EACCES};
    if (isOtherPath) known->askedPath.clear();
    lease = enterLocked(*known, forUpdate);
  }
  return forUpdate ? upgrade(*known, wait, lease) : OpenResult{};
}

// A reader never waits for its turn to update: who is in the turnstile waits for the readers.
OpenResult LockedFiles::upgrade(LockedFile& known, LockWait& wait, FileLease& lease) {
  OpenResult result{acquire(known.file, LockKind::kExclusive, wait, false)};
  if (result.error == 0) result.error = checkStillThere(*ops_, known.file);
  if (result.error == 0) result = recover(known.file);
  if (result.error == EBUSY) result.holder = Holder::kElsewhere;
  if (result.error != 0) lease.release();
  return result;
}

OpenResult LockedFiles::openNew(const std::string& path, Purpose purpose, LockWait& wait,
                                std::unique_ptr<LockedFile> locked, FileLease& lease) {
  const bool isUpdate = purpose != Purpose::kRead;
  RegularFile& file = locked->file;
  const bool wasThere = !file.path.empty();
  OpenResult result{openRegularFile(*ops_, path, purpose, file)};
  // It was there a moment ago: somebody removes it, and may make the next.
  if (result.error == ENOENT && (wasThere || file.descriptor.isOpen())) result.error = kTryAgain;
  if (result.error == 0) result = lockAndRecover(file, purpose, wait);
  if (result.error != 0 && result.error != kTryAgain) dropCreated(file);
  if (result.error == EBUSY) result.holder = findHolder(file.info, isUpdate);
  if (result.error != 0) return result;
  // Whoever was quicker to lock the file that was created here may have made a store of it.
  file.wasCreated = file.wasCreated && file.info.size == 0;
  locked->askedPath = path;
  const std::lock_guard guard(mutex_);
  LockedFile* entered = find(file.info);  // another thread may have been quicker to read it
  if (entered == nullptr) entered = files_.emplace_back(std::move(locked)).get();
  if (entered->askedPath != path) entered->askedPath.clear();
  lease = enterLocked(*entered, isUpdate);
  return result;
}

OpenResult LockedFiles::lockAndRecover(RegularFile& file, Purpose purpose, LockWait& wait) {
  const bool isRead = purpose == Purpose::kRead;
  int error = acquire(file, isRead ? LockKind::kShared : LockKind::kExclusive, wait);
  if (error == 0) error = checkStillThere(*ops_, file);
  if (error != 0) return {error};
  if (isRead) return recoverForReading(file, wait);
  if (purpose == Purpose::kUpdate) return recover(file);
  error = clearJournal(*ops_, file);
  return {error != 0 ? error : checkStillThere(*ops_, file), FileOperation::kRemove};
}

OpenResult LockedFiles::recover(RegularFile& file) {
  const int error = recoverFile(*ops_, file);
  if (error == ENAMETOOLONG) return {error, FileOperation::kWriteJournal};
  return {error != 0 ? error : checkStillThere(*ops_, file), FileOperation::kRollBack};
}

// That there is something to roll back is known only under a lock, and several readers may find it.
// So each lets go of its lock before it waits for an exclusive one: the first of them rolls back.
OpenResult LockedFiles::recoverForReading(RegularFile& file, LockWait& wait) {
  JournalState state{};
  const int error = examineJournal(*ops_, file, state);
  if (error != 0 || state != JournalState::kHot) return {error, FileOperation::kRollBack};
  if (!file.isWritable) return {EACCES, FileOperation::kRollBack};
  setLock(*ops_, file, LockPart::kBytes, LockKind::kNone);
  const OpenResult result = lockAndRecover(file, Purpose::kUpdate, wait);
  if (result.error != 0) return result;
  return {setLock(*ops_, file, LockPart::kBytes, LockKind::kShared)};
}

// One that another opening has locked meanwhile is theirs.
void LockedFiles::dropCreated(RegularFile& file) {
  if (!file.wasCreated || !file.descriptor.isOpen()) return;
  if (setLock(*ops_, file, LockPart::kBytes, LockKind::kExclusive) == 0) {
    removeIfLeftEmpty(*ops_, file);
  }
}

int LockedFiles::acquire(const RegularFile& file, LockKind kind, LockWait& wait, bool mayQueue) {
  // One that was made here has its lock, and who waits for that must not be waited for.
  if (file.wasCreated && setLock(*ops_, file, LockPart::kBytes, kind) == 0) return 0;
  const WaitingUpdate listed(*this, file.info, kind);
  const Turn turn(*ops_, file);
  int error = turn.take(kind);
  while (error == EBUSY && mayQueue && wait.pause(kPauseBeforeTurnstile))
    error = turn.take(kind);
  if (error != 0) return error;
  error = setLock(*ops_, file, LockPart::kBytes, kind);
  while (error == EBUSY && wait.pause(kPauseInTurnstile))
    error = setLock(*ops_, file, LockPart::kBytes, kind);
  return error;
}

OpenResult LockedFiles::remove(const std::string& path) {
  LockWait wait(lockWait_);
  OpenResult result = repeatReplaced([&] { return tryRemove(path, wait); });
  result.operation = FileOperation::kRemove;
  return result;
}

OpenResult LockedFiles::tryRemove(const std::string& path, LockWait& wait) {
  if (takes(&OpenTerms::onlyNew)) return {ENOENT};
  if (LockedFile* reserved = findReserved(path, true)) return {removeReserved(*reserved)};
  RegularFile file;
  int error = locateRegularFile(*ops_, path, file);
  if (error != 0) return {error};
  const Holder here = findHolder(file.info, true);
  if (here == Holder::kReadersHere || here == Holder::kUpdaterHere) {
    return {EBUSY, FileOperation::kRemove, here};
  }
  error = openRegularFile(*ops_, path, Purpose::kReplace, file);
  if (error != 0) return {error};
  OpenResult result = lockAndRecover(file, Purpose::kReplace, wait);
  if (result.error == EBUSY) result.holder = findHolder(file.info, true);
  return result.error != 0 ? result : OpenResult{removeLocked(file)};
}

// Of what is new there is nothing to remove.
int LockedFiles::removeReserved(LockedFile& locked) {
  if (locked.file.wasCreated) return ENOENT;
  locked.wasRemoved = true;
  const int error = checkStillThere(*ops_, locked.file);
  return error != 0 ? error : removeLocked(locked.file);
}

// Whoever creates the next file there must not find the old one again after a power cut, beside a
// journal that tells of the new one. And once the name is free that journal may be there already:
// so none is touched from here on.
int LockedFiles::removeLocked(const RegularFile& file) {
  const int error = removeName(*ops_, file);
  if (error != 0) return error;
  if (durability_ != Durability::full) return 0;
  return ops_->syncDirectory(file.directory.number());
}

int LockedFiles::release(LockedFile& locked, bool wasUpdate) noexcept {
  const std::unique_ptr<LockedFile> last = leave(locked, wasUpdate);
  if (last == nullptr) return 0;
  const int error = removeIfLeftEmpty(*ops_, last->file);
  const int closing = last->file.descriptor.close();
  return error != 0 ? error : closing;
}

// The file, when that was its last user.
std::unique_ptr<LockedFile> LockedFiles::leave(LockedFile& locked, bool wasUpdate) noexcept {
  const std::lock_guard guard(mutex_);
  locked.updaters -= wasUpdate;
  const auto place = std::ranges::find(files_, &locked, &std::unique_ptr<LockedFile>::get);
  if (--locked.users > 0) {
    if (wasUpdate && locked.updaters == 0)
      setLock(*ops_, locked.file, LockPart::kBytes, LockKind::kShared);
    return nullptr;
  }
  auto last = std::move(*place);
  files_.erase(place);
  return last;
}

LockedFile* LockedFiles::find(const FileInfo& info) {
  const auto found = std::find_if(files_.begin(), files_.end(), [&](const auto& locked) {
    return isSameFile(locked->file.info, info);
  });
  return found == files_.end() ? nullptr : found->get();
}

// What the calling thread has reserved here for the path, if it may be opened so.
LockedFile* LockedFiles::findReserved(const std::string& path, bool forUpdate) {
  const OpenRequest* request = OpenRequest::current();
  const FileLease* lease = request != nullptr ? request->reservation() : nullptr;
  if (lease == nullptr || lease->files_.get() != this) return nullptr;
  const std::lock_guard guard(mutex_);
  const bool isMeant = lease->locked_->askedPath == path && !lease->locked_->wasRemoved;
  return isMeant && (lease->isUpdate_ || !forUpdate) ? lease->locked_ : nullptr;
}

// Who keeps such an open from the file, as far as it can be seen here.
Holder LockedFiles::findHolder(const FileInfo& info, bool forUpdate) {
  const std::lock_guard guard(mutex_);
  const LockedFile* known = find(info);
  if (known != nullptr && known->updaters > 0) return Holder::kUpdaterHere;
  if (known != nullptr && forUpdate) return Holder::kReadersHere;
  const bool isWaitedFor =
      std::ranges::any_of(waitedFor_, [&](const FileInfo& file) { return isSameFile(file, info); });
  return isWaitedFor ? Holder::kUpdaterWaitsHere : Holder::kElsewhere;
}

}  // namespace hxhost
