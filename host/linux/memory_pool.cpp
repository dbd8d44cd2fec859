#include "host/linux/memory_pool.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>

#include "host/linux/system_memory.h"

namespace hxhost {

void PoolMeter::add(uint64_t bytes) noexcept {
  use_.bytes += bytes;
  ++use_.blocks;
  use_.peakBytes = std::max(use_.peakBytes, use_.bytes);
}

void PoolMeter::subtract(uint64_t bytes, uint64_t blocks) noexcept {
  use_.bytes -= bytes;
  use_.blocks -= blocks;
}

PoolUse PoolMeter::use() const noexcept {
  const std::lock_guard guard(mutex_);
  return use_;
}

namespace {

constexpr uint64_t kAlignment = 16;
constexpr uint64_t kFirstChunk = 1 << 16;
constexpr uint64_t kLargestChunk = 1 << 23;
constexpr uint64_t kLargestBlock = uint64_t{1} << 46;  // below it no sum of sizes overflows
constexpr uint64_t kLargestCell = kUnderAddressSanitizer ? 0 : 1 << 18;

// What lies before each block. The size says whether the block is a cell or stands alone.
union BlockHead {
  uint64_t size;    // of a block in use
  BlockHead* next;  // of a free cell
};
static_assert(sizeof(BlockHead) == 8);

// A cell is a head and a block. Up to 1024 bytes of block, cells take the multiples of 16; above,
// blocks are rounded up to eight sizes of even distance in each doubling.
constexpr unsigned kFineCells = 65;
constexpr unsigned kCellSizes = kFineCells + 8 * 8 + 1;

constexpr unsigned sizeClassOf(uint64_t size) {
  if (size <= 1024) return static_cast<unsigned>((size + sizeof(BlockHead) + 15) / 16);
  const unsigned doubling = static_cast<unsigned>(std::bit_width(size - 1)) - 11;
  const uint64_t step = uint64_t{128} << doubling;
  const uint64_t above = size - (uint64_t{1024} << doubling);
  return kFineCells + 8 * doubling + static_cast<unsigned>((above + step - 1) / step);
}

// The distance from one cell's head to the next one's: a multiple of 16, which keeps blocks
// aligned.
constexpr uint64_t cellStride(unsigned sizeClass) {
  if (sizeClass <= kFineCells) return uint64_t{16} * sizeClass;
  const unsigned doubling = (sizeClass - kFineCells - 1) / 8;
  const uint64_t eighths = (sizeClass - kFineCells - 1) % 8 + 1;
  return (uint64_t{1024} << doubling) + eighths * (uint64_t{128} << doubling) + kAlignment;
}

static_assert(cellStride(sizeClassOf(136)) == 144);
static_assert(cellStride(sizeClassOf(4096)) == 4096 + 16);
static_assert(cellStride(sizeClassOf(1025)) == 1152 + 16);
static_assert(sizeClassOf(1 << 18) == kCellSizes - 1);

// Memory that was taken from the system at once: a chunk, or a block that stands alone.
struct alignas(kAlignment) Region {
  Region* previous;
  Region* next;
  uint64_t bytes;
  BlockHead head;  // of the block that stands alone
};
static_assert(sizeof(Region) == 32 && offsetof(Region, head) == 24);

BlockHead* headOf(void* block) {
  return static_cast<BlockHead*>(block) - 1;
}

class RegionList {
 public:
  void insert(Region* region) {
    region->previous = nullptr;
    region->next = first_;
    if (first_ != nullptr) first_->previous = region;
    first_ = region;
  }

  void remove(Region* region) {
    (region->previous != nullptr ? region->previous->next : first_) = region->next;
    if (region->next != nullptr) region->next->previous = region->previous;
  }

  void giveBackAll() {
    while (Region* region = first_) {
      first_ = region->next;
      giveBackSystemMemory(region, region->bytes);
    }
  }

 private:
  Region* first_ = nullptr;
};

class MemoryPool : public hx::Pool {
 public:
  explicit MemoryPool(PoolMeter& meter);
  ~MemoryPool();

  void* take(uint64_t size, bool zeroed);
  void giveBack(void* block);

 private:
  void* takeCell(uint64_t size, bool zeroed);
  void* takeRegion(uint64_t size);
  BlockHead* carveCell(unsigned sizeClass);
  bool takeChunk(uint64_t stride);
  void count(uint64_t size);

  PoolMeter& meter_;
  std::mutex& mutex_;  // the meter's; guards everything below
  std::array<BlockHead*, kCellSizes> freeCells_{};
  RegionList regions_;
  std::byte* carveFrom_ = nullptr;  // the rest of the newest chunk, all zero
  uint64_t carveBytes_ = 0;
  uint64_t nextChunk_ = kFirstChunk;
  uint64_t usedBytes_ = 0;
  uint64_t usedBlocks_ = 0;
};

void* MemoryPool::take(uint64_t size, bool zeroed) {
  if (size > kLargestBlock) return nullptr;
  return size > kLargestCell ? takeRegion(size) : takeCell(size, zeroed);
}

void MemoryPool::count(uint64_t size) {
  usedBytes_ += size;
  ++usedBlocks_;
  meter_.add(size);
}

void* MemoryPool::takeCell(uint64_t size, bool zeroed) {
  const unsigned sizeClass = sizeClassOf(size);
  std::unique_lock guard(mutex_);
  BlockHead* cell = freeCells_[sizeClass];
  const bool reused = cell != nullptr;
  if (reused) {
    freeCells_[sizeClass] = cell->next;
  } else {
    cell = carveCell(sizeClass);
    if (cell == nullptr) return nullptr;
  }
  count(size);
  guard.unlock();
  cell->size = size;
  if (reused && zeroed) std::memset(cell + 1, 0, size);
  return cell + 1;
}

BlockHead* MemoryPool::carveCell(unsigned sizeClass) {
  const uint64_t stride = cellStride(sizeClass);
  if (stride > carveBytes_ && !takeChunk(stride)) return nullptr;
  auto* cell = new (carveFrom_) BlockHead;
  carveFrom_ += stride;
  carveBytes_ -= stride;
  return cell;
}

bool MemoryPool::takeChunk(uint64_t stride) {
  const uint64_t bytes = stride + sizeof(Region) > nextChunk_ ? kLargestChunk : nextChunk_;
  auto* chunk = static_cast<Region*>(takeSystemMemory(bytes, Touch::now));
  if (chunk == nullptr) return false;
  nextChunk_ = std::min(2 * bytes, kLargestChunk);
  chunk->bytes = bytes;
  regions_.insert(chunk);
  // The first head ends where the region's own does, so that the block behind it is aligned.
  carveFrom_ = reinterpret_cast<std::byte*>(&chunk->head);
  carveBytes_ = bytes - offsetof(Region, head);
  return true;
}

void* MemoryPool::takeRegion(uint64_t size) {
  auto* region = static_cast<Region*>(takeSystemMemory(size + sizeof(Region), Touch::onUse));
  if (region == nullptr) return nullptr;
  region->bytes = size + sizeof(Region);
  region->head.size = size;
  const std::lock_guard guard(mutex_);
  regions_.insert(region);
  count(size);
  return region + 1;
}

void MemoryPool::giveBack(void* block) {
  BlockHead* cell = headOf(block);
  const uint64_t size = cell->size;
  std::unique_lock guard(mutex_);
  meter_.subtract(size, 1);
  usedBytes_ -= size;
  --usedBlocks_;
  if (size <= kLargestCell) {
    const unsigned sizeClass = sizeClassOf(size);
    cell->next = freeCells_[sizeClass];
    freeCells_[sizeClass] = cell;
    return;
  }
  Region* region = static_cast<Region*>(block) - 1;
  regions_.remove(region);
  guard.unlock();
  giveBackSystemMemory(region, region->bytes);
}

MemoryPool* toMemoryPool(hx::Pool* pool) {
  return static_cast<MemoryPool*>(pool);
}

void* allocateSlot(hx::Pool* pool, uint64_t size, uint32_t flags) noexcept {
  return toMemoryPool(pool)->take(size, (flags & hx::HX_ALLOCATE_ZEROED) != 0);
}

void freeSlot(hx::Pool* pool, void* block) noexcept {
  if (block != nullptr) toMemoryPool(pool)->giveBack(block);
}

int32_t destroySlot(void* object) noexcept {
  delete toMemoryPool(static_cast<hx::Pool*>(object));
  return 0;
}

MemoryPool::MemoryPool(PoolMeter& meter) : hx::Pool{}, meter_(meter), mutex_(meter.mutex()) {
  head = {{'p', 'o', 'o', 'l'}, {}, nullptr, nullptr, nullptr, destroySlot};
  allocate = allocateSlot;
  free = freeSlot;
}

MemoryPool::~MemoryPool() {
  const std::lock_guard guard(mutex_);
  meter_.subtract(usedBytes_, usedBlocks_);
  regions_.giveBackAll();
}

}  // namespace

hx::Pool* makeMemoryPool(PoolMeter& meter) noexcept {
  return new (std::nothrow) MemoryPool(meter);
}

}  // namespace hxhost
