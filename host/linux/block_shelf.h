// Memory for the blocks of caches, kept from one open file for the next: a fresh block costs a
// mapping and a page fault for every page of it that is touched.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace hxhost {

// A block of memory that goes back to its shelf. The shelf outlives it.
class BlockShelf;
struct BlockReturner {
  BlockShelf* shelf = nullptr;
  void operator()(std::byte* block) const noexcept;
};
using Block = std::unique_ptr<std::byte, BlockReturner>;

// Safe for several threads. All its blocks have one size.
class BlockShelf {
 public:
  // At most `keptBytes` lie on the shelf.
  BlockShelf(size_t blockBytes, size_t keptBytes);

  // Bytes of any value, aligned to a page; null without memory.
  Block take() noexcept;

 private:
  friend BlockReturner;
  struct Freeing {
    void operator()(std::byte* block) const noexcept;
  };

  void giveBack(std::byte* block) noexcept;

  const size_t blockBytes_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<std::byte, Freeing>> spare_;  // its capacity is what is kept
};

}  // namespace hxhost
