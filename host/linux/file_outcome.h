// What went wrong with a file, told by the handle that it went wrong with.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "host/linux/file_ops.h"

namespace hxhost {

// What was being done. The last three belong to the end of an update, or of a part of it.
enum class FileOperation : uint8_t {
  kOpen,
  kRemove,
  kRead,
  kWrite,
  kWriteJournal,  // without its record there no byte of the file changes
  kAbandon,       // given up on purpose, with ECANCELED
  kSync,          // the file's bytes
  kRollBack,      // to what the file was before an update
  kCommit,        // the journal's removal
  kClose
};

// In words: "open", "write the journal".
const char* nameOf(FileOperation operation);

// Only what the disk or the system refused, and writes that were lost.
struct FileFailure {
  // errno. EBUSY when somebody else has the file open; ESTALE when what lies under its journal's
  // name is not its journal, EPERM in rolling back when it is another user's.
  int error;
  FileOperation operation;
  int64_t offset = -1;  // of the first byte that could not be transferred; -1 where none is meant
};

// What became of one open file, shared by its handle and by whoever opened it, and of use when the
// handle is gone. Safe for several threads; nothing here needs memory.
class FileOutcome {
 public:
  // What an update was lost by: the first failure, since it takes all of the update with it, a
  // failed read too. Of a file that is open for reading whatever is no read. Stays.
  std::optional<FileFailure> loss() const;

  // Of a file that is open for reading the last read that failed; forgotten with that.
  std::optional<FileFailure> takeFailedRead();

  // The loss, else the last read that failed. Forgets nothing.
  std::optional<FileFailure> failure() const;

  // The lost update has left the file as it was. When it has not, and the handle is closed, the
  // file is the new one where `hasHappened` says so, and may be after kClose, or will be made what
  // it was by whoever opens it next.
  bool wasRolledBack() const;

  // The update is in the file all the same: only that it is on disk could not be had, so that a
  // power cut may undo it.
  bool hasHappened() const;

  // Whether there is a loss.
  bool isLost() const { return isLost_; }

  // Which file it is, as it was when the handle was made.
  const FileInfo& opened() const { return opened_; }

  // What the file was when the handle was closed. Nothing while it is open, or when a change of the
  // file behind that might leave it with the same times.
  std::optional<FileInfo> closed() const;

  // How many bytes were asked for, over and over or not.
  int64_t bytesRead() const { return bytesRead_; }

  void noteRead(int64_t count) { bytesRead_.fetch_add(count, std::memory_order_relaxed); }
  void noteOpened(const FileInfo& info) { opened_ = info; }
  void noteClosed(const FileInfo& info);
  void noteLoss(const FileFailure& failure);
  void noteFailedRead(const FileFailure& failure);
  void noteRolledBack();
  void noteHappened();

 private:
  mutable std::mutex mutex_;
  std::optional<FileFailure> loss_;
  std::optional<FileFailure> failedRead_;
  bool wasRolledBack_ = false;
  bool hasHappened_ = false;
  std::atomic<bool> isLost_{false};
  std::atomic<int64_t> bytesRead_{0};
  FileInfo opened_{};  // stays
  std::optional<FileInfo> closed_;
};

}  // namespace hxhost
