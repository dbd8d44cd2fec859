// The bytes of a remote file that are here: blocks of a local file, each with a sum of its bytes.
//
//   off              width
//   0                4096        whose it is, told by who made the file
//   4096             8 a block   the sum; 0: the block is not here
//   behind, aligned  16384 each  the blocks
//
// Several processes may use one local file, at once and with no lock: who writes a block writes
// what every other would, and its sum last. A block whose sum is not that of its bytes is not here,
// for whatever reason: a crash, a process in the middle of it, one that has thrown it away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

namespace hxremote {

// One thread at a time calls it.
class BlockSpool {
 public:
  static constexpr int64_t kBlockSize = 16384;
  static constexpr int64_t kFrontSize = 4096;

  // For a remote file of `length` bytes, of which at most `mostBytes` are kept. Takes the
  // descriptor over. Throws std::bad_alloc.
  BlockSpool(int file, int64_t length, int64_t mostBytes);
  ~BlockSpool();
  BlockSpool(const BlockSpool&) = delete;
  BlockSpool& operator=(const BlockSpool&) = delete;

  int64_t blockCount() const { return (length_ + kBlockSize - 1) / kBlockSize; }
  // The last may be shorter.
  int64_t sizeOf(int64_t block) const;

  // Whether the block seems to be here; load may find otherwise.
  bool seemsToHave(int64_t block) const;

  // The block's bytes, which stay until the next call; empty when it is not here.
  std::span<const std::byte> load(int64_t block);

  // An errno when the disk does not take it; then it is here until others come.
  int store(int64_t block, std::span<const std::byte> bytes);

 private:
  struct Slot {
    int64_t block = -1;
    std::unique_ptr<std::byte[]> bytes;
  };

  int64_t placeOf(int64_t block) const { return firstBlock_ + block * kBlockSize; }
  uint64_t sumIn(int64_t block) const;
  Slot& slotOf(int64_t block);
  bool read(int64_t block, std::byte* to) const;
  void dropOldest();

  const int file_;
  const int64_t length_;
  const int64_t firstBlock_;
  const size_t mostBlocks_;
  std::vector<Slot> slots_;     // in memory, by the low digits of their numbers
  std::deque<int64_t> stored_;  // by this object, oldest first
};

}  // namespace hxremote
