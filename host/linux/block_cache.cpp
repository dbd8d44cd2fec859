#include "host/linux/block_cache.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace hxhost {
namespace {

constexpr int64_t kPieces = 64;
constexpr int64_t kSmallestBlock = kPieces;
constexpr int64_t kLargestBlock = 256 * 1024;
constexpr int64_t kFewestFrames = 4;
constexpr int64_t kMostFrames = 256;  // they are searched one by one

// A first read takes a record and the bytes of a small item: most of what is read in random order
// comes from pages of the system's cache that are in no processor's, and every line of them counts.
constexpr int64_t kFirstRead = 1024;

// Reading goes on while it skips no more than this, or no more than is known: so does a walk over
// the records of pages of 4 KiB.
constexpr int64_t kShortSkip = 8192;

constexpr int64_t kStepsAhead = 64;
constexpr int64_t kLargestStep = int64_t{1} << 32;  // no page is larger

// A stretch that is read on grows by this multiple of itself.
constexpr int64_t kGrowth = 4;

// A copy of as much costs more than a system call: reading an item with pages of 256 KiB takes
// three quarters of the time.
constexpr int64_t kReadPastFrom = 32 * 1024;

int64_t chooseFrameCount(int64_t cacheBytes, int64_t blockBytes) {
  return std::clamp(cacheBytes / blockBytes, kFewestFrames, kMostFrames);
}

size_t toSize(int64_t count) {
  return static_cast<size_t>(count);
}

}  // namespace

int64_t BlockCache::blockBytesFor(int64_t cacheBytes) {
  const int64_t share = cacheBytes / kFewestFrames;
  if (share <= kSmallestBlock) return kSmallestBlock;
  return static_cast<int64_t>(
      std::bit_floor(static_cast<uint64_t>(std::min(share, kLargestBlock))));
}

BlockCache::BlockCache(DiskFile& disk, BlockShelf& shelf, int64_t cacheBytes)
    : disk_(disk),
      shelf_(shelf),
      size_(disk.length()),
      blockBytes_(blockBytesFor(cacheBytes)),
      frames_(toSize(chooseFrameCount(cacheBytes, blockBytes_))),
      current_(frames_.data()) {
  current_->bytes = shelf_.take();
  if (current_->bytes == nullptr) throw std::bad_alloc();
}

int64_t BlockCache::read(int64_t offset, void* out, int64_t count) noexcept {
  count = std::min(count, size_ - offset);
  int64_t done = 0;
  while (done < count) {
    const int64_t from = (offset + done) & (blockBytes_ - 1);
    const int64_t to = from + std::min(count - done, blockBytes_ - from);
    if (!readWithin(offset + done - from, from, to, static_cast<std::byte*>(out) + done)) break;
    done += to - from;
  }
  return done;
}

bool BlockCache::write(int64_t offset, const void* bytes, int64_t count) noexcept {
  int64_t done = 0;
  while (done < count) {
    const int64_t from = (offset + done) & (blockBytes_ - 1);
    const int64_t to = from + std::min(count - done, blockBytes_ - from);
    const auto* source = static_cast<const std::byte*>(bytes) + done;
    if (!writeWithin(offset + done - from, from, to, source)) return false;
    done += to - from;
    size_ = std::max(size_, offset + done);
  }
  return true;
}

bool BlockCache::flush() noexcept {
  announceDirty();
  return std::all_of(frames_.begin(), frames_.end(), [this](Frame& f) { return flushFrame(f); });
}

bool BlockCache::readWithin(int64_t base, int64_t from, int64_t to, std::byte* out) {
  Frame* frame = current_;
  if (frame->base != base || !frame->holds(from, to)) {
    const Frame* found = find(base);
    if (isReadPast(found, base, from, to)) {
      return disk_.read(base + from, out, to - from, to - from) == to - from;
    }
    frame = frameOf(base);
    if (frame == nullptr || !load(*frame, from, to)) return false;
  }
  std::memcpy(out, frame->bytes.get() + from, toSize(to - from));
  return true;
}

// Many bytes that the disk has as well are not taken through memory.
bool BlockCache::isReadPast(const Frame* frame, int64_t base, int64_t from, int64_t to) const {
  const bool isLarge = to - from >= std::min(kReadPastFrom, blockBytes_);
  const bool isOnDisk = base + to <= disk_.length();
  return isLarge && isOnDisk && (frame == nullptr || !(frame->isDirty() || frame->holds(from, to)));
}

bool BlockCache::writeWithin(int64_t base, int64_t from, int64_t to, const std::byte* bytes) {
  Frame* frame = current_;
  if (frame->base != base || !frame->holds(from, to)) {
    if (to - from == blockBytes_ && find(base) == nullptr) {
      return disk_.write(base, bytes, blockBytes_);
    }
    frame = frameOf(base);
    if (frame == nullptr || !approach(*frame, from, to)) return false;
  }
  std::byte* place = frame->bytes.get() + from;
  // Behind the file's end the stretch has zeros, which the file has not: it is to grow by them.
  const bool isInFile = base + to <= size_ && frame->holds(from, to);
  if (isInFile && std::memcmp(place, bytes, toSize(to - from)) == 0) return true;
  std::memcpy(place, bytes, toSize(to - from));
  frame->begin = std::min(frame->begin, from);
  frame->end = std::max(frame->end, to);
  markDirty(*frame, from, to);
  return true;
}

void BlockCache::markDirty(Frame& frame, int64_t from, int64_t to) const {
  const int64_t pieceBytes = blockBytes_ / kPieces;
  const int64_t first = from / pieceBytes;
  const int64_t count = (to - 1) / pieceBytes + 1 - first;
  frame.dirtyPieces |= ~uint64_t{0} >> (kPieces - count) << first;
}

// Calls `use`(offset in the file, bytes, count) for each run of dirty pieces, as far as the stretch
// goes, until it returns false.
template <typename Use>
bool BlockCache::forEachDirtyRun(const Frame& frame, Use use) const {
  const int64_t pieceBytes = blockBytes_ / kPieces;
  uint64_t left = frame.dirtyPieces;
  while (left != 0) {
    const int first = std::countr_zero(left);
    const int count = std::countr_one(left >> first);
    const int64_t from = std::max(first * pieceBytes, frame.begin);
    const int64_t to = std::min((first + count) * pieceBytes, frame.end);
    if (!use(frame.base + from, frame.bytes.get() + from, to - from)) return false;
    left &= first + count < kPieces ? ~uint64_t{0} << (first + count) : 0;
  }
  return true;
}

// Brings [from, to) into the stretch, and what lies ahead of it when the file is read on.
bool BlockCache::load(Frame& frame, int64_t from, int64_t to) {
  if (frame.holds(from, to)) return true;
  int64_t known = frame.end - frame.begin;
  int64_t skipped = std::max(from - frame.end, frame.begin - to);
  if (known == 0) {
    frame.restartAt(0);
    known = stretchBefore(frame);
    skipped = from;
  }
  const bool goesOn = known > 0 && skipped <= std::max(known, kShortSkip);
  if (!frame.isDirty() && !goesOn) {
    frame.restartAt(from);
    known = 0;
    followSteps(frame.base + from);
  }
  const int64_t ahead = std::max(kFirstRead, kGrowth * known);
  if (from < frame.begin && !extendDown(frame, from, std::min(from, frame.end - ahead)))
    return false;
  return to <= frame.end || extendUp(frame, to, std::clamp(frame.end + ahead, to, blockBytes_));
}

// Whoever takes equal steps walks over the records of large pages, and the next lie as far apart.
// The disk brings many of them at once: the length of an item of 1 GiB that is in no cache is known
// in a fifth of the time.
void BlockCache::followSteps(int64_t offset) {
  const int64_t step = offset - std::exchange(lastStart_, offset);
  if (std::exchange(step_, step) != step || step <= 0 || step > kLargestStep) {
    announcedTo_ = offset;
    return;
  }
  const int64_t end = std::min(offset + kStepsAhead * step, disk_.length());
  for (int64_t next = std::max(announcedTo_, offset) + step; next < end; next += step) {
    disk_.announceRead(next, kFirstRead);
    announcedTo_ = next;
  }
}

// Makes the stretch touch [from, to), which is about to be written, and hold what the file had of
// it before the update.
bool BlockCache::approach(Frame& frame, int64_t from, int64_t to) {
  if (frame.base + from < disk_.formerLength()) return load(frame, from, to);
  if (frame.touches(from, to)) return true;
  if (!frame.isDirty()) {
    frame.restartAt(from);
    return true;
  }
  return from > frame.end ? extendUp(frame, from, from) : extendDown(frame, to, to);
}

bool BlockCache::extendUp(Frame& frame, int64_t needed, int64_t wanted) {
  const int64_t end = fetch(frame, frame.end, needed, wanted);
  if (end < 0) return false;
  frame.end = end;
  return true;
}

// At least from `needed` on, and from `wanted` on when the disk gives that, too.
bool BlockCache::extendDown(Frame& frame, int64_t needed, int64_t wanted) {
  const int64_t from = std::max<int64_t>(wanted, 0);
  const int64_t count = frame.begin - from;
  if (from < needed && disk_.tryRead(frame.base + from, frame.bytes.get() + from, count)) {
    frame.begin = from;
    return true;
  }
  if (fetch(frame, needed, frame.begin, frame.begin) < 0) return false;
  frame.begin = needed;
  return true;
}

// Fills the frame's bytes from `from` at least to `needed` and at most to `wanted`: from the disk,
// and past its end with zeros. Where that ended, or -1.
int64_t BlockCache::fetch(Frame& frame, int64_t from, int64_t needed, int64_t wanted) {
  std::byte* const bytes = frame.bytes.get();
  const int64_t offset = frame.base + from;
  const int64_t onDisk = std::clamp<int64_t>(disk_.length() - offset, 0, wanted - from);
  int64_t end = from;
  if (onDisk > 0) {
    const int64_t count = disk_.read(offset, bytes + from, onDisk, std::min(onDisk, needed - from));
    if (count < 0) return -1;
    end += count;
  }
  if (end >= needed) return end;
  std::memset(bytes + end, 0, toSize(needed - end));
  return needed;
}

// How long a stretch in memory ends where the frame's block begins.
int64_t BlockCache::stretchBefore(const Frame& frame) {
  const Frame* before = find(frame.base - blockBytes_);
  return before != nullptr && before->end == blockBytes_ ? before->end - before->begin : 0;
}

// What is dirty now will be written one run at a time, so the disk file may prepare for all of it
// at once.
void BlockCache::announceDirty() {
  for (const Frame& frame : frames_) {
    forEachDirtyRun(frame, [this](int64_t offset, const std::byte*, int64_t count) {
      disk_.announce(offset, count);
      return true;
    });
  }
}

bool BlockCache::makeRoom(Frame& frame) {
  const bool needsNone =
      forEachDirtyRun(frame, [this](int64_t offset, const std::byte*, int64_t count) {
        return !disk_.needsAnnouncement(offset, count);
      });
  if (!needsNone) announceDirty();
  return flushFrame(frame);
}

bool BlockCache::flushFrame(Frame& frame) {
  const bool isWritten =
      forEachDirtyRun(frame, [this](int64_t offset, const std::byte* bytes, int64_t count) {
        return disk_.write(offset, bytes, count);
      });
  if (isWritten) frame.dirtyPieces = 0;
  return isWritten;
}

BlockCache::Frame* BlockCache::find(int64_t base) {
  const auto found = std::find_if(frames_.begin(), frames_.end(),
                                  [base](const Frame& frame) { return frame.base == base; });
  return found == frames_.end() ? nullptr : &*found;
}

// The frame of that block, which becomes the current one; null when what it replaces can't be put
// on disk.
BlockCache::Frame* BlockCache::frameOf(int64_t base) {
  if (current_->base == base) return current_;
  Frame* frame = find(base);
  if (frame == nullptr) {
    frame = &vacantFrame();
    if (!makeRoom(*frame)) return nullptr;
    frame->base = base;
    frame->restartAt(0);
  }
  frame->lastUse = ++clock_;
  current_ = frame;
  return frame;
}

// A frame that has not been used yet, or the one whose last use is the longest ago.
BlockCache::Frame& BlockCache::vacantFrame() {
  Frame* oldest = nullptr;
  for (Frame& frame : frames_) {
    if (frame.bytes == nullptr) frame.bytes = shelf_.take();
    if (frame.bytes == nullptr) continue;
    if (frame.base == kNoBlock) return frame;
    if (oldest == nullptr || frame.lastUse < oldest->lastUse) oldest = &frame;
  }
  return *oldest;
}

}  // namespace hxhost
