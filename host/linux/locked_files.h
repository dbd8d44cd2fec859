// The files that one file service has open, each locked for as long as it is.
//
// A lock belongs to an opening of a file by the system, so the handles of one file share one: then
// a service whose handle reads a file can go on to update it by turning its shared lock into an
// exclusive one, without a moment in which somebody else could slip in. All others, in this process
// or elsewhere, are kept out by the lock.
//
//   1. A file that is open here is locked: exclusively while it is being updated, else shared.
//   2. A file that is open here has no hot journal but its own update's.
//   3. Of a file being updated no second handle is opened here, but the update's under the handle
//      of a reader, when it asks by the same path: another path is another store to the caller.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/linux/file_outcome.h"
#include "host/linux/linux_host.h"
#include "host/linux/regular_file.h"

namespace hxhost {

class LockedFiles;

struct LockedFile {
  RegularFile file;
  std::string askedPath;  // as given by all its readers; empty when they differ
  int users = 0;
  bool hasUpdater = false;
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

  // Closes the file, or leaves it to those who read it still; 0 or an errno.
  int release() noexcept;

 private:
  std::shared_ptr<LockedFiles> files_;
  LockedFile* locked_ = nullptr;
  bool isUpdate_ = false;
};

// What an open or a removal came to, and what it failed in.
struct OpenResult {
  int error = 0;  // errno; EBUSY when somebody else holds a lock
  FileOperation operation = FileOperation::kOpen;
};

// Safe for several threads; a wait for a lock keeps the others waiting.
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

  // Removes the regular file at `path`, which must be writable, and its journal; ESTALE when what
  // lies under the journal's name is none. May throw std::bad_alloc.
  int remove(const std::string& path);

 private:
  friend class FileLease;

  OpenResult tryOpen(const std::string& path, bool forUpdate, FileLease& lease);
  OpenResult openNew(const std::string& path, bool forUpdate, RegularFile& file);
  OpenResult join(LockedFile& known, const std::string& path, bool forUpdate);
  OpenResult lockForReading(RegularFile& file);
  OpenResult lockAndRecover(RegularFile& file);
  int tryRemove(const std::string& path);
  int removeLocked(const RegularFile& file);
  FileLease enter(LockedFile& locked, bool isUpdate);
  void dropCreated(RegularFile& file);
  int acquire(const RegularFile& file, LockKind kind);
  int release(LockedFile& locked, bool wasUpdate) noexcept;
  LockedFile* find(const FileInfo& info);

  const std::shared_ptr<FileOps> ops_;
  const Durability durability_;
  const std::chrono::milliseconds lockWait_;  // where no OpenRequest says it
  std::mutex mutex_;
  std::vector<std::unique_ptr<LockedFile>> files_;
};

}  // namespace hxhost
