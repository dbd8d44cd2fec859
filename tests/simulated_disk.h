// A disk in memory that knows what a power cut would leave of it, and that fails on demand.
#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "host/linux/file_ops.h"

namespace hxtest {

using DiskBytes = std::vector<uint8_t>;

// What is on a disk when nothing is under way. All files lie in one directory, "/".
struct DiskImage {
  std::map<std::string, uint64_t> names;
  std::map<uint64_t, DiskBytes> inodes;

  bool has(const std::string& path) const { return names.count(path) != 0; }
  // Empty when there is none.
  DiskBytes at(const std::string& path) const {
    return has(path) ? inodes.at(names.at(path)) : DiskBytes();
  }
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

// kLook leaves the disk as it is, kChange is what has no name of its own here.
enum class DiskOperation { kLook, kRead, kWrite, kChange, kUnlink, kSync, kSyncDirectory };

struct DiskStep {
  DiskOperation operation;
  std::string path;  // empty for a file that has no name any more

  bool changesDisk() const { return operation > DiskOperation::kRead; }
  bool isSync() const { return operation >= DiskOperation::kSync; }
};

// Only a file's sync puts its bytes and its length on disk, only the directory's sync puts names
// there. One thread at a time.
class SimulatedDisk : public hxhost::FileOps {
 public:
  explicit SimulatedDisk(const DiskImage& image = {}) : live_(image), synced_(image) {}

  // Faults. The operation `failAt` from now on fails, and all later ones if `failsEverAfter`.
  int64_t failAt = -1;
  bool failsEverAfter = false;
  int failure = EIO;
  bool hasFired = false;
  bool isReadOnly = false;              // opens for writing fail with EACCES
  bool fallsShort = false;              // transfers deliver at most half of what was asked for
  bool hasBecomeDevice = false;         // what is opened is not what was there a moment ago
  int64_t capacity = int64_t{1} << 60;  // bytes of all files; beyond it ENOSPC

  // Called before each operation that gets through to the disk.
  std::function<void(const DiskStep&)> watch;

  const std::vector<DiskChange>& pending() const { return pending_; }
  const DiskImage& live() const { return live_; }
  const DiskImage& synced() const { return synced_; }
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
  struct Opening {
    uint64_t inode;
    hxhost::LockKind lock = hxhost::LockKind::kNone;
  };

  bool begin(const DiskStep& step);
  std::string pathOf(uint64_t inode) const;
  int64_t transferred(size_t count) const;
  int64_t room(uint64_t inode) const;
  void change(DiskChange change);
  void settle(const std::function<bool(const DiskChange&)>& isMeant);

  DiskImage live_, synced_;
  std::vector<DiskChange> pending_;
  std::map<int, Opening> openings_;
  int lastOpening_ = 2;
};

}  // namespace hxtest
