#include "host/linux/transfer.h"

#include <cerrno>

namespace hxhost {
namespace {

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

int Transfer::reason() const {
  return error != 0 ? error : EIO;
}

Transfer readAll(FileOps& ops, int file, void* out, int64_t count, int64_t offset) noexcept {
  return transferAll(count, [&](int64_t done, size_t left) {
    return ops.readAt(file, static_cast<std::byte*>(out) + done, left, offset + done);
  });
}

Transfer writeAll(FileOps& ops, int file, const void* bytes, int64_t count,
                  int64_t offset) noexcept {
  return transferAll(count, [&](int64_t done, size_t left) {
    return ops.writeAt(file, static_cast<const std::byte*>(bytes) + done, left, offset + done);
  });
}

}  // namespace hxhost
