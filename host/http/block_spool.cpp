#include "host/http/block_spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

namespace hxremote {
namespace {

constexpr size_t kSlots = 2560;  // 40 MiB
constexpr int64_t kPage = 4096;

int64_t alignUp(int64_t offset) {
  return (offset + kPage - 1) / kPage * kPage;
}

bool readWhole(int file, void* to, int64_t count, int64_t offset) {
  auto* bytes = static_cast<std::byte*>(to);
  while (count > 0) {
    const ssize_t done = ::pread(file, bytes, static_cast<size_t>(count), offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    count -= done;
    offset += done;
  }
  return true;
}

int writeWhole(int file, const void* from, int64_t count, int64_t offset) {
  const auto* bytes = static_cast<const std::byte*>(from);
  while (count > 0) {
    const ssize_t done = ::pwrite(file, bytes, static_cast<size_t>(count), offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return done < 0 ? errno : EIO;
    bytes += done;
    count -= done;
    offset += done;
  }
  return 0;
}

// Four sums side by side, which the processor adds up at once. Never 0. Against accidents: nobody
// else may write into the folder.
uint64_t sumOf(int64_t block, std::span<const std::byte> bytes) {
  constexpr uint64_t kPrime = 0x9e3779b97f4a7c15;
  uint64_t lanes[4] = {kPrime + static_cast<uint64_t>(block), bytes.size(), 1, 2};
  for (; bytes.size() >= sizeof(lanes); bytes = bytes.subspan(sizeof(lanes))) {
    uint64_t words[4];
    std::memcpy(words, bytes.data(), sizeof(words));
    for (int i = 0; i < 4; ++i)
      lanes[i] = std::rotl((lanes[i] ^ words[i]) * kPrime, 29);
  }
  uint64_t sum = 0;
  for (const std::byte byte : bytes)
    sum = (sum ^ static_cast<uint64_t>(byte)) * kPrime;
  for (const uint64_t lane : lanes)
    sum = std::rotl((sum ^ lane) * kPrime, 31);
  return sum != 0 ? sum : 1;
}

}  // namespace

BlockSpool::BlockSpool(int file, bool isShared, int64_t length, int64_t mostBytes)
    : file_(file),
      isShared_(isShared),
      length_(length),
      firstBlock_(alignUp(kFrontSize + (length / kBlockSize + 1) * 8)),
      mostBlocks_(static_cast<size_t>(std::max<int64_t>(mostBytes / kBlockSize, 64))),
      slots_(kSlots) {}

BlockSpool::~BlockSpool() {
  ::close(file_);
}

int64_t BlockSpool::sizeOf(int64_t block) const {
  return std::min(kBlockSize, length_ - block * kBlockSize);
}

uint64_t BlockSpool::sumIn(int64_t block) const {
  uint64_t sum = 0;
  return readWhole(file_, &sum, sizeof(sum), kFrontSize + block * 8) ? sum : 0;
}

int64_t BlockSpool::findFirst(int64_t from, int64_t to) const {
  std::array<uint64_t, 512> sums;
  for (int64_t count = 1; from < to; from += count) {
    if (isInMemory(from)) return from;
    count = std::min(std::ssize(sums), to - from);
    sums.fill(0);  // behind the file's end none is kept
    readWhole(file_, sums.data(), count * 8, kFrontSize + from * 8);
    for (int64_t i = 0; i < count; ++i)
      if (sums[static_cast<size_t>(i)] != 0 || isInMemory(from + i)) return from + i;
  }
  return to;
}

// Makes room for that block.
int BlockSpool::vacate(Slot& slot, int64_t block) {
  if (slot.bytes == nullptr && !free_.empty()) {
    slot.bytes = std::move(free_.back());
    free_.pop_back();
  }
  if (slot.bytes == nullptr) slot.bytes = std::make_unique_for_overwrite<std::byte[]>(kBlockSize);
  const bool isOther = slot.block >= 0 && slot.block != block;
  const int error = isOther && !slot.isKept ? keep(slot) : 0;
  slot.block = -1;
  return error;
}

int64_t BlockSpool::read(int64_t offset, std::span<std::byte> to) {
  Slot* slot = load(offset / kBlockSize);
  if (slot == nullptr) return 0;
  const int64_t start = offset % kBlockSize;
  const int64_t count = std::min(sizeOf(slot->block) - start, std::ssize(to));
  std::memcpy(to.data(), slot->bytes.get() + start, static_cast<size_t>(count));
  slot->given += count;
  if (isThrough(*slot)) leave(*slot);
  return count;
}

void BlockSpool::leave(Slot& slot) {
  free_.push_back(std::move(slot.bytes));
  slot.block = -1;
}

BlockSpool::Slot* BlockSpool::load(int64_t block) {
  Slot& slot = slotOf(block);
  if (slot.block == block) return &slot;
  if (sumIn(block) == 0) return nullptr;
  // What the disk does not take is asked for again when it is read.
  static_cast<void>(vacate(slot, block));
  if (!fetch(block, slot.bytes.get())) return nullptr;
  slot.block = block;
  slot.given = 0;
  slot.isPassing = false;
  slot.isKept = true;
  return &slot;
}

bool BlockSpool::fetch(int64_t block, std::byte* to) const {
  const uint64_t sum = sumIn(block);
  if (sum == 0) return false;
  const bool isRead = readWhole(file_, to, sizeOf(block), placeOf(block));
  if (isRead && sum == sumOf(block, {to, static_cast<size_t>(sizeOf(block))})) return true;
  constexpr uint64_t kNothing = 0;
  writeWhole(file_, &kNothing, sizeof(kNothing), kFrontSize + block * 8);
  return false;
}

int BlockSpool::store(int64_t block, std::span<const std::byte> bytes, bool isPassing) {
  Slot& slot = slotOf(block);
  const int error = vacate(slot, block);
  std::memcpy(slot.bytes.get(), bytes.data(), bytes.size());
  slot.block = block;
  slot.given = 0;
  slot.isPassing = isPassing;
  slot.isKept = isShared_;
  return error == 0 && isShared_ ? keep(slot) : error;
}

int BlockSpool::keep(const Slot& slot) {
  const std::span<const std::byte> bytes{slot.bytes.get(), static_cast<size_t>(sizeOf(slot.block))};
  if (stored_.size() >= mostBlocks_) dropOldest();
  if (const int error = writeWhole(file_, bytes.data(), std::ssize(bytes), placeOf(slot.block));
      error != 0) {
    return error;
  }
  const uint64_t sum = sumOf(slot.block, bytes);
  stored_.push_back(slot.block);
  return writeWhole(file_, &sum, sizeof(sum), kFrontSize + slot.block * 8);
}

// Gives its room on the disk back.
void BlockSpool::dropOldest() {
  const int64_t block = stored_.front();
  stored_.pop_front();
  constexpr uint64_t kNothing = 0;
  writeWhole(file_, &kNothing, sizeof(kNothing), kFrontSize + block * 8);
  ::fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, placeOf(block), kBlockSize);
}

}  // namespace hxremote
