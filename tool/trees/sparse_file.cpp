#include "sparse_file.h"

#include <unistd.h>

#include <algorithm>

namespace tool {

namespace {

constexpr std::int64_t kBlock = 4096;  // bytes; of the usual file systems

bool isZero(std::span<const std::byte> bytes) {
  return bytes.front() == std::byte{} && std::equal(bytes.begin() + 1, bytes.end(), bytes.begin());
}

}  // namespace

bool SparseFile::write(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const auto room = static_cast<std::size_t>(kBlock - length_ % kBlock);
    const auto block = bytes.first(std::min(room, bytes.size()));
    std::size_t run = block.size();
    if (!isZero(block)) {
      // Up to the next block of zeros, in one call.
      while (run < bytes.size()) {
        const auto next = bytes.subspan(run, std::min<std::size_t>(kBlock, bytes.size() - run));
        if (isZero(next)) break;
        run += next.size();
      }
      if (!writeAt(file_, length_, bytes.first(run))) return false;
    }
    length_ += static_cast<std::int64_t>(run);
    bytes = bytes.subspan(run);
  }
  return true;
}

bool SparseFile::finish() const {
  return repeatInterrupted([&] { return ::ftruncate(file_.number(), length_); }) == 0;
}

}  // namespace tool
