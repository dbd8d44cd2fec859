#include "host/linux/block_shelf.h"

#include <algorithm>
#include <cstdlib>

namespace hxhost {
namespace {

// Copies between a buffer and the page cache are up to twice as fast when it begins on a page.
constexpr size_t kAlignment = 4096;

}  // namespace

void BlockShelf::Freeing::operator()(std::byte* block) const noexcept {
  std::free(block);
}

void BlockReturner::operator()(std::byte* block) const noexcept {
  shelf->giveBack(block);
}

BlockShelf::BlockShelf(size_t blockBytes, size_t keptBytes)
    : blockBytes_(std::max(blockBytes, kAlignment)) {
  spare_.reserve(keptBytes / blockBytes_);
}

Block BlockShelf::take() noexcept {
  {
    const std::lock_guard guard(mutex_);
    if (!spare_.empty()) {
      Block block(spare_.back().release(), {this});
      spare_.pop_back();
      return block;
    }
  }
  return Block(static_cast<std::byte*>(std::aligned_alloc(kAlignment, blockBytes_)), {this});
}

void BlockShelf::giveBack(std::byte* block) noexcept {
  const std::lock_guard guard(mutex_);
  if (spare_.size() < spare_.capacity()) {
    spare_.emplace_back(block);
  } else {
    std::free(block);
  }
}

}  // namespace hxhost
