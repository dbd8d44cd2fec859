#include "host/linux/transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

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

// What is missing still of some parts, as the system takes them.
class MissingParts {
 public:
  MissingParts(const hx::ReadRequest* parts, int32_t count) : next_(parts), end_(parts + count) {}

  bool areSound() const {
    return std::all_of(next_, end_, [](const hx::ReadRequest& part) {
      return part.count >= 0 && (part.destination != nullptr || part.count == 0);
    });
  }

  // The first of them, as many as go into one operation; none when nothing is missing.
  std::span<const iovec> take() {
    size_t taken = 0;
    for (const hx::ReadRequest* part = next_; part != end_ && taken < vectors_.size(); ++part) {
      const int64_t done = part == next_ ? done_ : 0;
      vectors_[taken++] = {static_cast<std::byte*>(part->destination) + done,
                           static_cast<size_t>(part->count - done)};
    }
    return std::span(vectors_).first(taken);
  }

  void advance(int64_t count) {
    done_ += count;
    for (; next_ != end_ && done_ >= next_->count; ++next_)
      done_ -= next_->count;
  }

 private:
  const hx::ReadRequest* next_;
  const hx::ReadRequest* end_;
  int64_t done_ = 0;  // of the next one
  std::array<iovec, 160> vectors_;
};

}  // namespace

int Transfer::reason() const {
  return error != 0 ? error : EIO;
}

Transfer readAll(FileOps& ops, int file, void* out, int64_t count, int64_t offset) noexcept {
  return transferAll(count, [&](int64_t done, size_t left) {
    return ops.readAt(file, static_cast<std::byte*>(out) + done, left, offset + done);
  });
}

bool readParts(FileOps& ops, int file, const hx::ReadRequest* parts, int32_t count,
               int64_t offset) noexcept {
  MissingParts missing(parts, count);
  if (!missing.areSound()) return false;
  for (missing.advance(0);;) {
    const std::span<const iovec> vectors = missing.take();
    if (vectors.empty()) return true;
    const int64_t result =
        ops.readPartsAt(file, vectors.data(), static_cast<int>(vectors.size()), offset);
    if (result <= 0) return false;
    missing.advance(result);
    offset += result;
  }
}

Transfer writeAll(FileOps& ops, int file, const void* bytes, int64_t count,
                  int64_t offset) noexcept {
  return transferAll(count, [&](int64_t done, size_t left) {
    return ops.writeAt(file, static_cast<const std::byte*>(bytes) + done, left, offset + done);
  });
}

}  // namespace hxhost
