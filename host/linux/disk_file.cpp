#include "host/linux/disk_file.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "host/linux/transfer.h"

namespace hxhost {

DiskFile::DiskFile(LockedFiles& files, FileLease lease, FailureLog& failures)
    : ops_(files.ops()),
      lease_(std::move(lease)),
      path_(lease_.file().path),
      durability_(files.durability()),
      failures_(failures),
      journal_(ops_, lease_.file(), durability_),
      formerLength_(lease_.file().info.size),
      length_(formerLength_) {}

DiskFile::~DiskFile() {
  if (lease_.isUpdate()) endUpdate();
  if (const int error = lease_.release(); error != 0) noteFailure(error, "close", -1);
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
  noteFailure(transfer.reason(), "read", offset + transfer.count);
  return -1;
}

bool DiskFile::tryRead(int64_t offset, void* out, int64_t count) noexcept {
  const int number = lease_.file().descriptor.number();
  return readAll(ops_, number, out, count, offset).count == count;
}

void DiskFile::announce(int64_t offset, int64_t count) noexcept {
  if (hasLostWrite_) return;
  const int error = journal_.record(offset, count);
  if (error == 0) return;
  stopWriting();
  noteFailure(error, "write the journal", -1);
}

bool DiskFile::write(int64_t offset, const void* bytes, int64_t count) noexcept {
  announce(offset, count);
  if (hasLostWrite_) return false;
  if (const int error = journal_.putOnDisk(); error != 0) {
    stopWriting();
    noteFailure(error, "write the journal", -1);
    return false;
  }
  const int number = lease_.file().descriptor.number();
  const Transfer transfer = writeAll(ops_, number, bytes, count, offset);
  length_ = std::max(length_, offset + transfer.count);
  if (transfer.count == count) return true;
  stopWriting();
  noteFailure(transfer.reason(), "write", offset + transfer.count);
  return false;
}

void DiskFile::noteFailure(int error, const char* operation, int64_t offset) noexcept {
  const bool isRead = std::string_view(operation) == "read" && !isWritable();
  std::optional<FailureTicket>& last = isRead ? failedRead_ : loss_;
  if (last && failures_.holds(*last)) return;
  const FailureTicket failure{error, operation, offset};
  last = failures_.record(loss_ && !isRead ? *loss_ : failure, path());
}

void DiskFile::noteRefusal() noexcept {
  if (loss_) noteFailure(loss_->error, loss_->operation, loss_->offset);
}

void DiskFile::endUpdate() noexcept {
  if (!hasLostWrite_ && commit()) return;
  const bool wasRolledBack = rollBack();
  if (loss_) failures_.conclude(*loss_, path(), wasRolledBack);
}

// False when the file has to be rolled back. When only the journal's removal may not be on disk,
// the update has happened, and a power cut may undo it: that is told, and nothing can be done.
bool DiskFile::commit() noexcept {
  if (!journal_.exists()) return false;
  if (durability_ == Durability::full) {
    const int result = ops_.sync(lease_.file().descriptor.number());
    if (result < 0) noteFailure(-result, "sync", -1);
    if (result < 0) return false;
  }
  if (const int error = journal_.remove(); error != 0) {
    noteFailure(error, "commit", -1);
    return !journal_.isThere();
  }
  if (const int error = journal_.syncName(); error != 0) noteFailure(error, "commit", -1);
  return true;
}

bool DiskFile::rollBack() noexcept {
  int error = journal_.rollBack(lease_.file());
  if (error == 0) error = removeIfLeftEmpty(ops_, lease_.file());
  if (error != 0) failures_.record({error, "roll back", -1}, path());
  return error == 0;
}

}  // namespace hxhost
