// An open file on disk below a handle's cache: transfers whole stretches, remembers that one
// failed, and makes all that an update writes one transaction. Every byte of the file that changes
// passes through `write`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "host/linux/file_outcome.h"
#include "host/linux/journal.h"
#include "host/linux/locked_files.h"

namespace hxhost {

// One thread at a time calls it.
class DiskFile {
 public:
  DiskFile(LockedFiles& files, FileLease lease, std::shared_ptr<FileOutcome> outcome);

  // Completes the update: what was written is on disk and stays, or, when something of it was lost
  // or can't be put on disk, the file is what it was before. A file that the update created and
  // that is empty is removed. Then closes the file.
  ~DiskFile();

  const std::shared_ptr<FileOutcome>& outcome() const { return outcome_; }
  OpenedFile opened() const { return {ops_, lease_.file()}; }
  bool isWritable() const { return lease_.isUpdate(); }

  // Bytes that lie on disk: the file's size when it was opened, and what was written since.
  int64_t length() const { return length_; }

  // What it was when the update began, by the open or by a commit: what lies behind is its own.
  int64_t formerLength() const { return formerLength_; }

  // Reads `wanted` bytes within `length()`, or at least the first `needed` of them when the rest
  // can't be had. The number read, or -1 after noting the failure, which an update does not
  // survive.
  int64_t read(int64_t offset, void* out, int64_t wanted, int64_t needed) noexcept;

  // The same for bytes that nobody has asked for: true when all of them could be had, and nothing
  // is noted.
  bool tryRead(int64_t offset, void* out, int64_t count) noexcept;

  // The same for parts in a row, and by several threads at once. Not for a file that is updated:
  // what it is to hold lies in memory, too.
  bool tryReadParts(const hx::ReadRequest* parts, int32_t count, int64_t offset) const noexcept;

  // Brings them nearer while others are read, if that can be done.
  void announceRead(int64_t offset, int64_t count) const noexcept {
    ops_.announceRead(lease_.file().descriptor.number(), offset, count);
  }

  // Whether a write there would have to put something into the journal first, and wait for it.
  bool needsAnnouncement(int64_t offset, int64_t count) const {
    return journal_->lacksRecords(offset, count);
  }

  // Tells of a write that is to come: those that are announced together wait for the journal once.
  void announce(int64_t offset, int64_t count) noexcept;

  // Writes all bytes, or notes the failure and stops writing.
  bool write(int64_t offset, const void* bytes, int64_t count) noexcept;

  // From now on nothing is written any more: bytes were lost, and what follows would build on them.
  void stopWriting() { hasLostWrite_ = true; }
  bool hasLostWrite() const { return hasLostWrite_; }

  // Tells a failure: a reader's failed read, else the loss of the update.
  void noteFailure(const FileFailure& failure) noexcept;

  // Makes what was written so far stay, and goes on with the next update of the file. False, after
  // noting why, when that can't be: the outcome says whether the file is what it was before or the
  // update is in it, and nothing is written any more.
  bool commitUpdate() noexcept;

 private:
  // How the present update has ended. None also when it could not be rolled back, which is tried
  // again then.
  enum class End { kNone, kHappened, kRolledBack };

  void noteClosed() noexcept;
  void endUpdate() noexcept;
  bool commit() noexcept;
  bool rollBack() noexcept;
  void startUpdate() noexcept;

  FileOps& ops_;
  FileLease lease_;
  const Durability durability_;
  const std::shared_ptr<FileOutcome> outcome_;
  std::optional<Journal> journal_;  // always one: the present update's
  int64_t formerLength_;
  int64_t length_;
  bool hasLostWrite_ = false;
  End end_ = End::kNone;
};

}  // namespace hxhost
