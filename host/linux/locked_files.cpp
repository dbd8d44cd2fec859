#include "host/linux/locked_files.h"

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>

#include "host/linux/open_request.h"
#include "host/linux/rollback.h"

namespace hxhost {
namespace {

// The file was replaced, removed or left unfinished while it was being opened.
constexpr int kTryAgain = -1;

// Whoever replaces files faster than this is not waited for.
constexpr int kMostAttempts = 100;

constexpr std::chrono::milliseconds kPause{2};

// One wait, as long as the thread's request or else the host says; the request is told its length.
class LockWait {
 public:
  explicit LockWait(std::chrono::milliseconds byDefault)
      : request_(OpenRequest::current()),
        limit_(request_ != nullptr ? request_->terms().lockWait : byDefault) {}
  ~LockWait() {
    if (request_ != nullptr) request_->noteWait(waited());
  }
  LockWait(const LockWait&) = delete;
  LockWait& operator=(const LockWait&) = delete;

  // False when it is over. The limit is compared as it is: a sum with it, or what it is in
  // nanoseconds, may pass the largest number.
  bool pause() const {
    if (limit_.count() >= 0 && waited() >= limit_) return false;
    std::this_thread::sleep_for(kPause);
    return true;
  }

 private:
  std::chrono::milliseconds waited() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin_);
  }

  using Clock = std::chrono::steady_clock;
  OpenRequest* const request_;
  const std::chrono::milliseconds limit_;
  const Clock::time_point begin_ = Clock::now();
};

// What was opened and locked may no longer be what the path leads to.
int checkStillThere(FileOps& ops, RegularFile& file) {
  const int error = inspectAgain(ops, file);
  return error == ENOENT ? kTryAgain : error;
}

template <typename Attempt>
OpenResult repeatReplaced(Attempt attempt) {
  for (int left = kMostAttempts; left > 0; --left) {
    const OpenResult result = attempt();
    if (result.error != kTryAgain) return result;
  }
  return {EBUSY};
}

bool mustRollBack(FileOps& ops, const RegularFile& file) {
  JournalState state{};
  return examineJournal(ops, file, state) == 0 && state == JournalState::kHot;
}

}  // namespace

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
  const std::lock_guard guard(mutex_);
  return repeatReplaced([&] { return tryOpen(path, forUpdate, lease); });
}

OpenResult LockedFiles::tryOpen(const std::string& path, bool forUpdate, FileLease& lease) {
  auto locked = std::make_unique<LockedFile>();
  const int error = locateRegularFile(*ops_, path, locked->file);
  if (error != 0 && !(error == ENOENT && forUpdate)) return {error};
  if (LockedFile* known = error == 0 ? find(locked->file.info) : nullptr) {
    const OpenResult result = join(*known, path, forUpdate);
    if (result.error == 0) lease = enter(*known, forUpdate);
    return result;
  }
  locked->askedPath = path;
  files_.reserve(files_.size() + 1);
  const OpenResult result = openNew(path, forUpdate, locked->file);
  if (result.error != 0) return result;
  files_.push_back(std::move(locked));
  lease = enter(*files_.back(), forUpdate);
  return result;
}

FileLease LockedFiles::enter(LockedFile& locked, bool isUpdate) {
  ++locked.users;
  locked.hasUpdater |= isUpdate;
  return {shared_from_this(), locked, isUpdate};
}

OpenResult LockedFiles::join(LockedFile& known, const std::string& path, bool forUpdate) {
  if (known.hasUpdater) return {EBUSY};
  if (!forUpdate) {
    if (known.askedPath != path) known.askedPath.clear();
    return {};
  }
  if (known.askedPath != path) return {EBUSY};
  if (!known.file.isWritable) return {EACCES};
  const OpenResult result = lockAndRecover(known.file);
  if (result.error != 0) acquire(known.file, LockKind::kShared);
  return result;
}

OpenResult LockedFiles::openNew(const std::string& path, bool forUpdate, RegularFile& file) {
  const int error =
      openRegularFile(*ops_, path, forUpdate ? Purpose::kUpdate : Purpose::kRead, file);
  OpenResult result{error};
  if (error == 0) result = forUpdate ? lockAndRecover(file) : lockForReading(file);
  if (result.error != 0 && result.error != kTryAgain) dropCreated(file);
  return result;
}

// Whether there is something to roll back is known only under the lock. But readers that find it
// out there would stand in each other's way to the exclusive lock, so they look before, too.
OpenResult LockedFiles::lockForReading(RegularFile& file) {
  if (file.isWritable && mustRollBack(*ops_, file)) {
    const OpenResult result = lockAndRecover(file);
    return result.error != 0 ? result : OpenResult{acquire(file, LockKind::kShared)};
  }
  int error = acquire(file, LockKind::kShared);
  if (error == 0) error = checkStillThere(*ops_, file);
  if (error != 0) return {error};
  JournalState state{};
  error = examineJournal(*ops_, file, state);
  if (error == 0 && state == JournalState::kHot) error = file.isWritable ? kTryAgain : EACCES;
  return {error, FileOperation::kRollBack};
}

OpenResult LockedFiles::lockAndRecover(RegularFile& file) {
  int error = acquire(file, LockKind::kExclusive);
  if (error == 0) error = checkStillThere(*ops_, file);
  if (error != 0) return {error};
  error = recoverFile(*ops_, file);
  if (error == 0) error = checkStillThere(*ops_, file);
  return {error, FileOperation::kRollBack};
}

// One that another opening has locked meanwhile is theirs.
void LockedFiles::dropCreated(RegularFile& file) {
  if (!file.wasCreated || !file.descriptor.isOpen()) return;
  if (ops_->lock(file.descriptor.number(), LockKind::kExclusive) == 0) {
    removeIfLeftEmpty(*ops_, file);
  }
}

int LockedFiles::acquire(const RegularFile& file, LockKind kind) {
  LockWait wait(lockWait_);
  for (;;) {
    const int result = ops_->lock(file.descriptor.number(), kind);
    if (result != -EAGAIN) return -result;
    if (!wait.pause()) return EBUSY;
  }
}

int LockedFiles::remove(const std::string& path) {
  const std::lock_guard guard(mutex_);
  return repeatReplaced([&] { return OpenResult{tryRemove(path)}; }).error;
}

int LockedFiles::tryRemove(const std::string& path) {
  RegularFile file;
  int error = locateRegularFile(*ops_, path, file);
  if (error != 0) return error;
  if (find(file.info) != nullptr) return EBUSY;
  error = openRegularFile(*ops_, path, Purpose::kRemove, file);
  if (error == 0) error = acquire(file, LockKind::kExclusive);
  if (error == 0) error = checkStillThere(*ops_, file);
  if (error == 0) error = clearJournal(*ops_, file);
  if (error == 0) error = checkStillThere(*ops_, file);
  return error != 0 ? error : removeLocked(file);
}

// Whoever creates the next file there must not find the old one again after a power cut, beside a
// journal that tells of the new one. And once the name is free that journal may be there already:
// so none is touched from here on.
int LockedFiles::removeLocked(const RegularFile& file) {
  if (const int result = ops_->remove(file.path); result < 0) return -result;
  if (durability_ != Durability::full) return 0;
  return -ops_->syncDirectory(directoryOf(file.path));
}

int LockedFiles::release(LockedFile& locked, bool wasUpdate) noexcept {
  const std::lock_guard guard(mutex_);
  if (wasUpdate) locked.hasUpdater = false;
  if (--locked.users > 0) {
    return wasUpdate ? -ops_->lock(locked.file.descriptor.number(), LockKind::kShared) : 0;
  }
  const int error = locked.file.descriptor.close();
  std::erase_if(files_, [&](const auto& file) { return file.get() == &locked; });
  return error;
}

LockedFile* LockedFiles::find(const FileInfo& info) {
  const auto found = std::find_if(files_.begin(), files_.end(), [&](const auto& locked) {
    return isSameFile(locked->file.info, info);
  });
  return found == files_.end() ? nullptr : found->get();
}

}  // namespace hxhost
