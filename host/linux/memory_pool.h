// The memory pool of host/kernel.h.
//
// Small blocks are cells carved from chunks of 64 KiB, the first, to 8 MiB. A size is rounded up to
// one of a fixed set of cell sizes, and a freed cell waits in the list of its size; a cell costs 8
// bytes beside its block. Blocks above 256 KiB are mapped one by one and go back to the system when
// they are freed. Under AddressSanitizer every block comes from `calloc`, so that each has its own
// surroundings watched.
//
// It is our own because std::pmr's pool resource, over calloc, makes a store in memory one buffer
// at half the speed (2.1 instead of 3.9 GB/s: it can't tell memory that is zero still) and 1000
// small items 4 % slower; nothing was faster with it.
#pragma once

#include <mutex>

#include "host/kernel.h"
#include "host/linux/linux_host.h"

namespace hxhost {

// Counts the blocks of several pools, which share its mutex: a block is counted where its pool is
// locked anyway.
class PoolMeter {
 public:
  PoolUse use() const noexcept;

  std::mutex& mutex() const noexcept { return mutex_; }

  // With the mutex held.
  void add(uint64_t bytes) noexcept;
  void subtract(uint64_t bytes, uint64_t blocks) noexcept;

 private:
  mutable std::mutex mutex_;
  PoolUse use_{};
};

// An empty pool that counts with `meter`, which outlives it; null without memory. Its `destroy`
// slot releases it with all its blocks. Blocks are aligned to 16 bytes; one of size 0 is a block
// like any other. A size that can't be had gives null.
hx::Pool* makeMemoryPool(PoolMeter& meter) noexcept;

}  // namespace hxhost
