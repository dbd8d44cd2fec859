#include "host/linux/disk_file.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "host/linux/transfer.h"

namespace hxhost {

DiskFile::DiskFile(LockedFiles& files, FileLease lease, std::shared_ptr<FileOutcome> outcome)
    : ops_(files.ops()),
      lease_(std::move(lease)),
      durability_(files.durability()),
      outcome_(std::move(outcome)),
      length_(lease_.file().info.size) {
  outcome_->noteOpened(lease_.file().info);
  startUpdate();
}

void DiskFile::startUpdate() noexcept {
  formerLength_ = length_;
  lease_.file().info.size = length_;
  journal_.emplace(ops_, lease_.file(), durability_);
  end_ = End::kNone;
}

DiskFile::~DiskFile() {
  if (lease_.isUpdate() && end_ == End::kNone) endUpdate();
  noteClosed();
  const int error = lease_.release();
  if (error != 0) noteFailure({error, FileOperation::kClose});
  if (end_ == End::kRolledBack && error == 0) outcome_->noteRolledBack();
}

// Before the lock goes. A file that was changed in the present tick of the system's coarse clock,
// or the present second of some file systems, may be changed again and have the same time: unless
// that was stamped by an update, more finely.
void DiskFile::noteClosed() noexcept {
  const int number = lease_.file().descriptor.number();
  const bool isStamped = end_ == End::kHappened && ops_.stampChange(number) == 0;
  timespec tick{};
  FileInfo info{};
  if (::clock_gettime(CLOCK_REALTIME_COARSE, &tick) != 0) return;
  if (ops_.inspect(number, info) != 0) return;
  constexpr int64_t kSecond = 1'000'000'000;
  const int64_t last = std::max(info.modified, info.changed);
  const bool isCoarse = last % kSecond == 0;
  const bool isSettled = tick.tv_sec * kSecond + tick.tv_nsec > last + (isCoarse ? 2 * kSecond : 0);
  if (isSettled || (isStamped && !isCoarse)) outcome_->noteClosed(info);
}

int64_t DiskFile::read(int64_t offset, void* out, int64_t wanted, int64_t needed) noexcept {
  const int number = lease_.file().descriptor.number();
  Transfer transfer = readAll(ops_, number, out, wanted, offset);
  // What lies ahead may be unreadable although nobody has asked for it yet.
  if (transfer.count < needed && needed < wanted) {
    transfer = readAll(ops_, number, out, needed, offset);
  }
  if (transfer.count >= needed) return transfer.count;
  // Whoever updates by what it reads leaves out what it could not read.
  if (isWritable()) stopWriting();
  noteFailure({transfer.reason(), FileOperation::kRead, offset + transfer.count});
  return -1;
}

bool DiskFile::tryRead(int64_t offset, void* out, int64_t count) noexcept {
  const int number = lease_.file().descriptor.number();
  return readAll(ops_, number, out, count, offset).count == count;
}

bool DiskFile::tryReadParts(const hx::ReadRequest* parts, int32_t count,
                            int64_t offset) const noexcept {
  if (isWritable() || parts == nullptr || count < 0 || offset < 0) return false;
  return readParts(ops_, lease_.file().descriptor.number(), parts, count, offset);
}

void DiskFile::announce(int64_t offset, int64_t count) noexcept {
  if (hasLostWrite_) return;
  const int error = journal_->record(offset, count);
  if (error == 0) return;
  stopWriting();
  noteFailure({error, FileOperation::kWriteJournal});
}

bool DiskFile::write(int64_t offset, const void* bytes, int64_t count) noexcept {
  announce(offset, count);
  if (hasLostWrite_) return false;
  if (const int error = journal_->putOnDisk(); error != 0) {
    stopWriting();
    noteFailure({error, FileOperation::kWriteJournal});
    return false;
  }
  const int number = lease_.file().descriptor.number();
  const Transfer transfer = writeAll(ops_, number, bytes, count, offset);
  length_ = std::max(length_, offset + transfer.count);
  if (transfer.count == count) return true;
  stopWriting();
  noteFailure({transfer.reason(), FileOperation::kWrite, offset + transfer.count});
  return false;
}

void DiskFile::noteFailure(const FileFailure& failure) noexcept {
  const bool isRead = failure.operation == FileOperation::kRead && !isWritable();
  isRead ? outcome_->noteFailedRead(failure) : outcome_->noteLoss(failure);
}

bool DiskFile::commitUpdate() noexcept {
  if (!hasLostWrite_ && !journal_->exists()) return true;
  if (end_ == End::kNone) endUpdate();
  if (end_ == End::kRolledBack) outcome_->noteRolledBack();
  if (outcome_->loss()) {
    stopWriting();
    return false;
  }
  lease_.file().wasCreated = false;
  startUpdate();
  return true;
}

void DiskFile::endUpdate() noexcept {
  if (!hasLostWrite_ && commit()) {
    end_ = End::kHappened;
  } else if (rollBack()) {
    end_ = End::kRolledBack;
  }
}

// False when the file has to be rolled back. When only the journal's removal may not be on disk,
// the update has happened, and a power cut may undo it: that is told, and nothing can be done.
bool DiskFile::commit() noexcept {
  if (!journal_->exists()) return false;
  if (durability_ == Durability::full) {
    const int error = ops_.sync(lease_.file().descriptor.number());
    if (error != 0) noteFailure({error, FileOperation::kSync});
    if (error != 0) return false;
  }
  // Behind another file's name, or none, nobody would find what is said to be there.
  if (const int error = inspectAgain(ops_, lease_.file()); error != 0) {
    noteFailure({error, FileOperation::kCommit});
    return false;
  }
  if (const int error = journal_->remove(); error != 0) {
    noteFailure({error, FileOperation::kCommit});
    return !journal_->isThere();
  }
  if (const int error = journal_->syncName(); error != 0) {
    noteFailure({error, FileOperation::kCommit});
    outcome_->noteHappened();
  }
  return true;
}

bool DiskFile::rollBack() noexcept {
  const int error = journal_->rollBack(lease_.file());
  if (error == 0) return true;
  lease_.file().wasCreated = false;  // it stays, with the journal, for the next open to roll back
  noteFailure({error, FileOperation::kRollBack});
  return false;
}

}  // namespace hxhost
