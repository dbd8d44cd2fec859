// The cache of one open file: reads and writes of any size become few and large transfers.
//
// The file is divided into blocks of equal size, of which some are in memory. Of its block a frame
// holds one contiguous stretch, which starts small and grows as it is read on, up or down. A block
// has 64 pieces, each of which may be dirty:
//
//   1. The stretch holds the file's bytes as a reader is to see them.
//   2. A byte that lies outside the stretch, or in a piece that is not dirty, is on disk, or lies
//      past the disk's length and is zero.
//   3. No stretch reaches past size(), and size() is never below the disk's length.
//
// A stretch that has nothing dirty may be dropped at any time for one elsewhere in the block; a
// dirty one is kept and the bytes between it and what is added to it are read in. What the file had
// before an update is read in before it is written to: bytes that are written as they were make
// nothing dirty, so a directory that is written anew puts only its changes on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/linux/block_shelf.h"
#include "host/linux/disk_file.h"

namespace hxhost {

// One thread at a time calls it. Positions in the file are never negative, and a position plus a
// count never exceeds the largest int64_t: the caller has checked.
class BlockCache {
 public:
  // At most `cacheBytes` are held, but never less than four blocks of 64 bytes nor more than 256 of
  // 256 KiB. The shelf has blocks of blockBytesFor(cacheBytes) and outlives the cache. Throws
  // std::bad_alloc when not even one block can be had.
  BlockCache(DiskFile& disk, BlockShelf& shelf, int64_t cacheBytes);

  static int64_t blockBytesFor(int64_t cacheBytes);

  // The file's length, bytes not yet on disk included.
  int64_t size() const { return size_; }

  // The number of bytes delivered: fewer than asked for at the end of the file or before a failure,
  // which the disk file has noted.
  int64_t read(int64_t offset, void* out, int64_t count) noexcept;

  // A gap between the file's end and `offset` reads as zeros. False when bytes were lost, which the
  // disk file has noted.
  bool write(int64_t offset, const void* bytes, int64_t count) noexcept;

  // Puts everything dirty on disk; false when that failed.
  bool flush() noexcept;

 private:
  struct Frame {
    int64_t base = kNoBlock;  // where the block begins in the file
    int64_t begin = 0;        // the stretch, counted from `base`
    int64_t end = 0;
    uint64_t dirtyPieces = 0;  // a bit each, the block's first piece in the lowest
    uint64_t lastUse = 0;
    Block bytes;  // null until the frame is used for the first time

    bool isDirty() const { return dirtyPieces != 0; }
    bool holds(int64_t from, int64_t to) const { return begin <= from && to <= end; }
    bool touches(int64_t from, int64_t to) const { return from <= end && begin <= to; }
    void restartAt(int64_t from) { begin = end = from; }
  };

  static constexpr int64_t kNoBlock = -1;

  bool isReadPast(const Frame* frame, int64_t base, int64_t from, int64_t to) const;
  bool readWithin(int64_t base, int64_t from, int64_t to, std::byte* out);
  bool writeWithin(int64_t base, int64_t from, int64_t to, const std::byte* bytes);
  bool load(Frame& frame, int64_t from, int64_t to);
  void followSteps(int64_t offset);
  bool approach(Frame& frame, int64_t from, int64_t to);
  bool extendUp(Frame& frame, int64_t needed, int64_t wanted);
  bool extendDown(Frame& frame, int64_t needed, int64_t wanted);
  int64_t fetch(Frame& frame, int64_t from, int64_t needed, int64_t wanted);
  int64_t stretchBefore(const Frame& frame);
  void markDirty(Frame& frame, int64_t from, int64_t to) const;
  template <typename Use>
  bool forEachDirtyRun(const Frame& frame, Use use) const;
  void announceDirty();
  bool makeRoom(Frame& frame);
  bool flushFrame(Frame& frame);

  Frame* find(int64_t base);
  Frame* frameOf(int64_t base);
  Frame& vacantFrame();

  DiskFile& disk_;
  BlockShelf& shelf_;
  int64_t size_;
  int64_t blockBytes_;  // a power of two, at least 64
  uint64_t clock_ = 0;
  std::vector<Frame> frames_;
  Frame* current_;           // the one used last
  int64_t lastStart_ = 0;    // where a stretch began last,
  int64_t step_ = 0;         // how far that was from the one before,
  int64_t announcedTo_ = 0;  // and the last place of such steps that the disk was told
};

}  // namespace hxhost
