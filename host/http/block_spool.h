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

// The blocks that came last are in memory as well, as many as may be under way at once, so that who
// reads on meets them there. A file of this object alone gets a block when that leaves memory:
// whoever passes through a long item once writes nothing. One thread at a time calls it.
class BlockSpool {
 public:
  static constexpr int64_t kBlockSize = 16384;
  static constexpr int64_t kFrontSize = 4096;

  // For a remote file of `length` bytes, of which at most `mostBytes` are kept. Takes the
  // descriptor over. Throws std::bad_alloc.
  BlockSpool(int file, bool isShared, int64_t length, int64_t mostBytes);
  ~BlockSpool();
  BlockSpool(const BlockSpool&) = delete;
  BlockSpool& operator=(const BlockSpool&) = delete;

  int64_t blockCount() const { return (length_ + kBlockSize - 1) / kBlockSize; }
  // The last may be shorter.
  int64_t sizeOf(int64_t block) const;

  // The first block from `from` on and before `to` that seems to be here, else `to`; read may find
  // otherwise.
  int64_t findFirst(int64_t from, int64_t to) const;

  // Bytes from `offset` on, as far as its block goes; 0 when that is not here.
  int64_t read(int64_t offset, std::span<std::byte> to);

  // An errno when the disk does not take it or what it takes the place of; it is here until others
  // come. `isPassing`: once all of it was read, nobody asks for it again.
  int store(int64_t block, std::span<const std::byte> bytes, bool isPassing);

 private:
  struct Slot {
    int64_t block = -1;
    int64_t given = 0;  // bytes of it that were read
    bool isPassing = false;
    bool isKept = false;  // in the file as well
    std::unique_ptr<std::byte[]> bytes;
  };

  int64_t placeOf(int64_t block) const { return firstBlock_ + block * kBlockSize; }
  Slot& slotOf(int64_t block) { return slots_[static_cast<size_t>(block) % slots_.size()]; }
  bool isInMemory(int64_t block) const {
    return slots_[static_cast<size_t>(block) % slots_.size()].block == block;
  }
  bool isThrough(const Slot& slot) const {
    return slot.isPassing && slot.given >= sizeOf(slot.block);
  }
  void leave(Slot& slot);
  int vacate(Slot& slot, int64_t block);
  Slot* load(int64_t block);
  int keep(const Slot& slot);
  uint64_t sumIn(int64_t block) const;
  bool fetch(int64_t block, std::byte* to) const;
  void dropOldest();

  const int file_;
  const bool isShared_;
  const int64_t length_;
  const int64_t firstBlock_;
  const size_t mostBlocks_;
  std::vector<Slot> slots_;                         // in memory, by the low digits of their numbers
  std::vector<std::unique_ptr<std::byte[]>> free_;  // the last one is in the processor's cache
  std::deque<int64_t> stored_;                      // by this object, oldest first
};

}  // namespace hxremote
