// The files that one file service has open, each locked for as long as it is.
//
// A lock belongs to an opening of a file by the system, so the handles of one file share one: then
// a service whose handle reads a file can go on to update it by turning its shared lock into an
// exclusive one, without a moment in which somebody else could slip in. All others, in this process
// or elsewhere, are kept out by the lock.
//
//   1. A file that is open here is locked: exclusively while it is being updated, else shared.
//   2. A file that is open here has no hot journal but its own update's.
//   3. Of a file being updated no second handle is opened here, but by the thread that reserved it,
//      or the update's under the handle of a reader, when it asks by the same path: another path is
//      another store to the caller.
//   4. Who waits for a lock stands in the file's turnstile (file_ops.h) meanwhile, readers
//   together,
//      an updater alone: so whoever comes later waits behind. Those who have their lock are not in
//      it.
//   5. Nobody waits with the mutex held.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/linux/file_outcome.h"
#include "host/linux/linux_host.h"
#include "host/linux/lock_wait.h"
#include "host/linux/open_request.h"
#include "host/linux/regular_file.h"

namespace hxhost {

class LockedFiles;

struct LockedFile {
  RegularFile file;
  std::string askedPath;    // as given by all its readers; empty when they differ
  int users = 0;            // handles and reservations
  int updaters = 0;         // of them, that update
  bool wasRemoved = false;  // by who reserved it
};

// A handle's share of a locked file. Released by `release`, or at the end.
class FileLease {
 public:
  FileLease() = default;
  FileLease(std::shared_ptr<LockedFiles> files, LockedFile& locked, bool isUpdate)
      : files_(std::move(files)), locked_(&locked), isUpdate_(isUpdate) {}
  FileLease(FileLease&& other) noexcept { *this = std::move(other); }
  FileLease& operator=(FileLease&& other) noexcept;
  ~FileLease() { release(); }

  RegularFile& file() const { return locked_->file; }
  bool isUpdate() const { return isUpdate_; }

  // Closes the file, or leaves it to its other users; 0 or an errno. The last removes a file that
  // was created for it and is empty still.
  int release() noexcept;

 private:
  friend class LockedFiles;

  std::shared_ptr<LockedFiles> files_;
  LockedFile* locked_ = nullptr;
  bool isUpdate_ = false;
};

// What an open or a removal came to, and what it failed in.
struct OpenResult {
  int error = 0;  // errno; EBUSY when somebody else holds a lock
  FileOperation operation = FileOperation::kOpen;
  Holder holder = Holder::kNobody;  // with EBUSY
};

// Safe for several threads.
class LockedFiles : public std::enable_shared_from_this<LockedFiles> {
 public:
  LockedFiles(std::shared_ptr<FileOps> ops, Durability durability,
              std::chrono::milliseconds lockWait)
      : ops_(std::move(ops)), durability_(durability), lockWait_(lockWait) {}

  FileOps& ops() const { return *ops_; }
  Durability durability() const { return durability_; }

  // The regular file at `path`, locked and rolled back; see openRegularFile for its errors. A
  // reader needs permission to write only where there is something to roll back. May throw
  // std::bad_alloc.
  OpenResult open(const std::string& path, bool forUpdate, FileLease& lease);

  // The same ahead of an open, or of a removal and an open, and like one of another service: it
  // waits also for those who have the file open here.
  OpenResult reserve(const std::string& path, Purpose purpose, FileLease& lease);

  // Removes the regular file at `path`, which must be writable, and its journal; ESTALE when what
  // lies under the journal's name is none. May throw std::bad_alloc.
  OpenResult remove(const std::string& path);

 private:
  friend class FileLease;
  class WaitingUpdate;

  OpenResult tryOpen(const std::string& path, bool forUpdate, LockWait& wait, FileLease& lease);
  OpenResult openNew(const std::string& path, Purpose purpose, LockWait& wait,
                     std::unique_ptr<LockedFile> locked, FileLease& lease);
  std::optional<OpenResult> join(const FileInfo& info, const std::string& path, bool forUpdate,
                                 LockWait& wait, FileLease& lease);
  OpenResult upgrade(LockedFile& known, LockWait& wait, FileLease& lease);
  OpenResult lockAndRecover(RegularFile& file, Purpose purpose, LockWait& wait);
  OpenResult recover(RegularFile& file);
  OpenResult recoverForReading(RegularFile& file, LockWait& wait);
  int acquire(const RegularFile& file, LockKind kind, LockWait& wait, bool mayQueue = true);
  void dropCreated(RegularFile& file);

  OpenResult tryRemove(const std::string& path, LockWait& wait);
  int removeReserved(LockedFile& locked);
  int removeLocked(const RegularFile& file);

  FileLease enter(LockedFile& locked, bool isUpdate);
  FileLease enterLocked(LockedFile& locked, bool isUpdate);
  std::unique_ptr<LockedFile> leave(LockedFile& locked, bool wasUpdate) noexcept;
  int release(LockedFile& locked, bool wasUpdate) noexcept;
  LockedFile* find(const FileInfo& info);
  LockedFile* findReserved(const std::string& path, bool forUpdate);
  Holder findHolder(const FileInfo& info, bool forUpdate);

  const std::shared_ptr<FileOps> ops_;
  const Durability durability_;
  const std::chrono::milliseconds lockWait_;  // where no OpenRequest says it
  std::mutex mutex_;                          // guards the lists and the counts of the files
  std::vector<std::unique_ptr<LockedFile>> files_;
  std::list<FileInfo> waitedFor_;  // by updates
};

}  // namespace hxhost
