#include "host/linux/disk_file.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace hxhost {
namespace {

// What a transfer that may take several operations came to.
struct Transfer {
  int64_t count = 0;
  int error = 0;
};

// Repeats `operation`(bytes done, bytes left) until all are transferred, none are, or it fails.
template <typename Operation>
Transfer transferAll(int64_t count, Operation operation) {
  Transfer transfer;
  while (transfer.count < count) {
    const int64_t result = operation(transfer.count, static_cast<size_t>(count - transfer.count));
    if (result < 0) transfer.error = static_cast<int>(-result);
    if (result <= 0) break;
    transfer.count += result;
  }
  return transfer;
}

}  // namespace

DiskFile::DiskFile(std::shared_ptr<FileOps> ops, RegularFile file, FailureLog& failures)
    : ops_(std::move(ops)), file_(std::move(file)), failures_(failures) {}

DiskFile::~DiskFile() {
  if (const int error = removeIfLeftEmpty(*ops_, file_); error != 0) {
    noteFailure(error, "remove", -1);
  }
  if (const int error = file_.descriptor.close(); error != 0) noteFailure(error, "close", -1);
}

int64_t DiskFile::read(int64_t offset, void* out, int64_t wanted, int64_t needed) noexcept {
  const int number = file_.descriptor.number();
  const auto readOn = [&](int64_t done, size_t left) {
    return ops_->readAt(number, static_cast<std::byte*>(out) + done, left, offset + done);
  };
  Transfer transfer = transferAll(wanted, readOn);
  // What lies ahead may be unreadable although nobody has asked for it yet.
  if (transfer.count < needed && needed < wanted) transfer = transferAll(needed, readOn);
  if (transfer.count >= needed) return transfer.count;
  // Without an error the file has become shorter beneath the open handle.
  noteFailure(transfer.error != 0 ? transfer.error : EIO, "read", offset + transfer.count);
  return -1;
}

bool DiskFile::write(int64_t offset, const void* bytes, int64_t count) noexcept {
  if (hasLostWrite_) return false;
  const int number = file_.descriptor.number();
  const Transfer transfer = transferAll(count, [&](int64_t done, size_t left) {
    return ops_->writeAt(number, static_cast<const std::byte*>(bytes) + done, left, offset + done);
  });
  file_.size = std::max(file_.size, offset + transfer.count);
  if (transfer.count == count) return true;
  stopWriting();
  noteFailure(transfer.error != 0 ? transfer.error : EIO, "write", offset + transfer.count);
  return false;
}

void DiskFile::noteFailure(int error, const char* operation, int64_t offset) noexcept {
  if (hasFailed_) return;
  hasFailed_ = true;
  failures_.record(error, operation, offset, file_.path);
}

}  // namespace hxhost
