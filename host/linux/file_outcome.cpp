#include "host/linux/file_outcome.h"

#include <utility>

namespace hxhost {

const char* nameOf(FileOperation operation) {
  switch (operation) {
    case FileOperation::kOpen:
      return "open";
    case FileOperation::kRemove:
      return "remove";
    case FileOperation::kRead:
      return "read";
    case FileOperation::kWrite:
      return "write";
    case FileOperation::kWriteJournal:
      return "write the journal";
    case FileOperation::kAbandon:
      return "abandon";
    case FileOperation::kSync:
      return "sync";
    case FileOperation::kRollBack:
      return "roll back";
    case FileOperation::kCommit:
      return "commit";
    case FileOperation::kClose:
      return "close";
  }
  return "";
}

std::optional<FileFailure> FileOutcome::loss() const {
  const std::lock_guard guard(mutex_);
  return loss_;
}

std::optional<FileFailure> FileOutcome::takeFailedRead() {
  const std::lock_guard guard(mutex_);
  return std::exchange(failedRead_, std::nullopt);
}

std::optional<FileFailure> FileOutcome::failure() const {
  const std::lock_guard guard(mutex_);
  return loss_ ? loss_ : failedRead_;
}

bool FileOutcome::wasRolledBack() const {
  const std::lock_guard guard(mutex_);
  return wasRolledBack_ && loss_;
}

bool FileOutcome::hasHappened() const {
  const std::lock_guard guard(mutex_);
  return hasHappened_ && loss_;
}

std::optional<FileInfo> FileOutcome::closed() const {
  const std::lock_guard guard(mutex_);
  return closed_;
}

void FileOutcome::noteClosed(const FileInfo& info) {
  const std::lock_guard guard(mutex_);
  closed_ = info;
}

void FileOutcome::noteLoss(const FileFailure& failure) {
  const std::lock_guard guard(mutex_);
  if (!loss_) loss_ = failure;
  isLost_ = true;
}

void FileOutcome::noteFailedRead(const FileFailure& failure) {
  const std::lock_guard guard(mutex_);
  failedRead_ = failure;
}

void FileOutcome::noteRolledBack() {
  const std::lock_guard guard(mutex_);
  wasRolledBack_ = true;
}

void FileOutcome::noteHappened() {
  const std::lock_guard guard(mutex_);
  hasHappened_ = true;
}

}  // namespace hxhost
