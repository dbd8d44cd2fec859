#include "host/http/block_spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

namespace hxremote {
namespace {

constexpr size_t kSlots = 256;
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

BlockSpool::BlockSpool(int file, int64_t length, int64_t mostBytes)
    : file_(file),
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

BlockSpool::Slot& BlockSpool::slotOf(int64_t block) {
  Slot& slot = slots_[static_cast<size_t>(block) % kSlots];
  if (slot.bytes == nullptr) slot.bytes = std::make_unique<std::byte[]>(kBlockSize);
  return slot;
}

bool BlockSpool::seemsToHave(int64_t block) const {
  return slots_[static_cast<size_t>(block) % kSlots].block == block || sumIn(block) != 0;
}

std::span<const std::byte> BlockSpool::load(int64_t block) {
  Slot& slot = slotOf(block);
  if (slot.block != block) {
    slot.block = -1;
    if (!read(block, slot.bytes.get())) return {};
    slot.block = block;
  }
  return {slot.bytes.get(), static_cast<size_t>(sizeOf(block))};
}

bool BlockSpool::read(int64_t block, std::byte* to) const {
  const uint64_t sum = sumIn(block);
  if (sum == 0) return false;
  const bool isRead = readWhole(file_, to, sizeOf(block), placeOf(block));
  if (isRead && sum == sumOf(block, {to, static_cast<size_t>(sizeOf(block))})) return true;
  constexpr uint64_t kNothing = 0;
  writeWhole(file_, &kNothing, sizeof(kNothing), kFrontSize + block * 8);
  return false;
}

int BlockSpool::store(int64_t block, std::span<const std::byte> bytes) {
  Slot& slot = slotOf(block);
  std::ranges::copy(bytes, slot.bytes.get());
  slot.block = block;
  if (stored_.size() >= mostBlocks_) dropOldest();
  if (const int error = writeWhole(file_, bytes.data(), std::ssize(bytes), placeOf(block));
      error != 0) {
    return error;
  }
  const uint64_t sum = sumOf(block, bytes);
  stored_.push_back(block);
  return writeWhole(file_, &sum, sizeof(sum), kFrontSize + block * 8);
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
