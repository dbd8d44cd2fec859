// A disk in memory that knows what a power cut would leave of it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/linux/file_ops.h"

namespace hxtest {

using DiskBytes = std::vector<uint8_t>;

// What is on a disk when nothing is under way. All files lie in one directory, "/".
struct DiskImage {
  struct File {
    uint64_t inode;
    DiskBytes bytes;
  };
  std::map<std::string, File> files;
};

enum class ChangeKind { kWrite, kTruncate, kCreate, kUnlink };

// Something that was done and is not yet synced.
struct DiskChange {
  ChangeKind kind;
  uint64_t inode;
  std::string path;  // of kCreate and kUnlink
  int64_t offset;    // of kWrite; the new length of kTruncate
  DiskBytes bytes;
};

// What becomes of a change in a power cut: a torn write keeps some of its sectors, and its length.
enum class Fate { kKept, kDropped, kTorn };

enum class DiskOperation {
  kOpen,
  kRead,
  kWrite,
  kTruncate,
  kSync,
  kUnlink,
  kSyncDirectory,
  kOther
};

// Only a file's sync puts its bytes and its length on disk, only the directory's sync puts names
// there. One thread at a time.
class SimulatedDisk : public hxhost::FileOps {
 public:
  static constexpr int64_t kSector = 512;

  explicit SimulatedDisk(const DiskImage& image = {});

  // Faults. The operation `failAt` from now on fails, and all later ones if `failsEverAfter`.
  int64_t failAt = -1;
  bool failsEverAfter = false;
  int failure = EIO;
  bool hasFired = false;
  bool isReadOnly = false;              // opens for writing fail with EACCES
  bool fallsShort = false;              // transfers deliver at most half of what was asked for
  int64_t capacity = int64_t{1} << 60;  // bytes of all files; beyond it ENOSPC

  // Called before each operation that gets through to the disk. `path` is empty for a file that has
  // no name any more; `offset` and `count` are those of a write.
  std::function<void(DiskOperation, const std::string& path, int64_t offset, int64_t count)> watch;

  const std::vector<DiskChange>& pending() const { return pending_; }
  bool hasPending(uint64_t inode) const;
  DiskImage live() const;
  DiskImage synced() const;
  // Fates by the index of the pending change; `random` chooses the sectors of the torn ones.
  DiskImage afterPowerCut(const std::vector<Fate>& fates, std::mt19937& random) const;

  int open(const std::string& path, hxhost::OpenMode mode) override;
  int close(int file) override;
  int64_t readAt(int file, void* out, size_t count, int64_t offset) override;
  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override;
  int inspect(int file, hxhost::FileInfo& info) override;
  int inspectPath(const std::string& path, hxhost::FileInfo& info) override;
  int truncate(int file, int64_t size) override;
  int sync(int file) override;
  int lock(int file, hxhost::LockKind kind) override;
  int copyAccess(int from, int to) override;
  int syncDirectory(const std::string& path) override;
  int remove(const std::string& path) override;
  int resolve(const std::string& path, std::string& resolved) override;

 private:
  using Names = std::map<std::string, uint64_t>;
  using Inodes = std::map<uint64_t, DiskBytes>;
  struct Opening {
    uint64_t inode;
    hxhost::LockKind lock = hxhost::LockKind::kNone;
  };

  static DiskImage imageOf(const Names& names, const Inodes& inodes);
  static void apply(const DiskChange& change, Names& names, Inodes& inodes, std::mt19937* tearing);

  bool begin(DiskOperation operation, const std::string& path, int64_t offset = 0,
             int64_t count = 0);
  std::string pathOf(uint64_t inode) const;
  void change(DiskChange change);
  template <typename Condition>
  void settle(Condition isMeant);

  Names names_, syncedNames_;
  Inodes inodes_, syncedInodes_;
  std::vector<DiskChange> pending_;
  std::map<int, Opening> openings_;
  int lastOpening_ = 2;
  uint64_t lastInode_ = 0;
};

}  // namespace hxtest
