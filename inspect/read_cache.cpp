#include "inspect/read_cache.h"

#include <algorithm>

namespace hxcrate {

bool ReadCache::read(int64_t offset, std::span<std::byte> to) {
  while (!to.empty()) {
    if (offset < 0) return false;
    const Block& block = findBlock(offset / kBlockSize);
    const auto start = static_cast<std::size_t>(offset % kBlockSize);
    if (start >= block.size) return false;
    const std::size_t count = std::min(block.size - start, to.size());
    std::copy_n(block.bytes.begin() + static_cast<std::ptrdiff_t>(start), count, to.begin());
    to = to.subspan(count);
    offset += static_cast<int64_t>(count);
  }
  return true;
}

const ReadCache::Block& ReadCache::findBlock(int64_t number) {
  std::unique_ptr<Block>& block = blocks_[static_cast<std::size_t>(number) % kBlocks];
  if (block == nullptr) block = std::make_unique<Block>();
  if (block->number != number) {
    block->number = number;
    block->size = source_.read(number * kBlockSize, block->bytes);
  }
  return *block;
}

}  // namespace hxcrate
