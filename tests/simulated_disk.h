// A disk in memory that knows what a power cut would leave of it, and that fails on demand.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
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
  int64_t birth = 1;                         // of every file, as the system tells it
  std::map<uint64_t, uint32_t> owners = {};  // of the inodes that are not root's

  bool has(const std::string& path) const { return names.count(path) != 0; }
  // Empty when there is none.
  DiskBytes at(const std::string& path) const {
    return has(path) ? inodes.at(names.at(path)) : DiskBytes();
  }
};

// kLook leaves the disk as it is; so does kOpen unless it creates.
enum class DiskOperation {
  kLook,
  kRead,
  kWrite,
  kTruncate,
  kOpen,
  kRename,
  kUnlink,
  kSync,
  kSyncDirectory
};

struct DiskStep {
  DiskOperation operation;
  std::string path;  // empty for a file that has no name any more

  bool changesDisk() const { return operation >= DiskOperation::kWrite; }
  bool isSync() const { return operation >= DiskOperation::kSync; }
};

// Something that was done and is not yet synced.
struct DiskChange {
  DiskOperation operation;  // kOpen for a creation
  uint64_t inode;
  std::string path;   // of creations, renamings and removals
  size_t offset = 0;  // of a write; the new length of a truncation
  DiskBytes bytes = {};
  std::string formerPath = {};  // of a renaming

  // A write is whole, or torn where `tearing` chooses.
  void applyTo(DiskImage& image, std::mt19937* tearing = nullptr) const {
    constexpr size_t kSector = 512;
    DiskBytes& file = image.inodes[inode];
    if (operation == DiskOperation::kOpen) image.names[path] = inode;
    if (operation == DiskOperation::kRename) image.names[path] = inode;
    if (operation == DiskOperation::kRename) image.names.erase(formerPath);
    if (operation == DiskOperation::kUnlink) image.names.erase(path);
    if (operation == DiskOperation::kTruncate) file.resize(offset);
    if (operation != DiskOperation::kWrite) return;
    file.resize(std::max(file.size(), offset + bytes.size()));
    for (size_t i = 0; i < bytes.size();) {
      const size_t count = std::min(bytes.size() - i, kSector - (offset + i) % kSector);
      const bool isLost = tearing != nullptr && (*tearing)() % 2 != 0;
      if (!isLost) std::memcpy(file.data() + offset + i, bytes.data() + i, count);
      i += count;
    }
  }
};

// What becomes of a change in a power cut: a torn write keeps some of its sectors, and its length.
enum class Fate { kKept, kDropped, kTorn };

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
  bool isReadOnly = false;       // opens for writing fail with EACCES
  bool fallsShort = false;       // transfers deliver at most half of what was asked for
  bool hasBecomeDevice = false;  // what is opened is not what was there a moment ago
  bool knowsNameless = true;     // makes files that have no name

  std::vector<int64_t> announced;  // where reads were

  // Called before each operation that gets through to the disk.
  std::function<void(const DiskStep&)> watch;

  const std::vector<DiskChange>& pending() const { return pending_; }
  const DiskImage& live() const { return live_; }
  const DiskImage& synced() const { return synced_; }

  // Fates by the index of the pending change; `random` chooses the sectors of the torn ones.
  DiskImage afterPowerCut(const std::vector<Fate>& fates, std::mt19937& random) const {
    DiskImage image = synced_;
    for (size_t i = 0; i < pending_.size(); ++i) {
      if (fates[i] == Fate::kDropped) continue;
      pending_[i].applyTo(image, fates[i] == Fate::kTorn ? &random : nullptr);
    }
    return image;
  }

  int openDirectory(const std::string&) override {
    return fails(DiskOperation::kLook) ? -failure : kDirectory;
  }

  int open(int, const std::string& name, hxhost::OpenMode mode) override {
    return open("/" + name, mode);
  }

  int open(const std::string& path, hxhost::OpenMode mode) {
    using hxhost::OpenMode;
    if (fails(DiskOperation::kOpen, path)) return -failure;
    if (isReadOnly && mode != OpenMode::kRead) return -EACCES;
    const bool isNew = mode == OpenMode::kCreateNew || mode == OpenMode::kCreatePrivate;
    if (live_.has(path) && isNew) return -EEXIST;
    if (!live_.has(path)) {
      if (!isNew && mode != OpenMode::kCreate) return -ENOENT;
      change({DiskOperation::kOpen, unusedInode(), path});
    }
    openings_[++lastOpening_] = {live_.names[path]};
    return lastOpening_;
  }

  int createUnfinished(int directory, std::string& name) override {
    const uint64_t inode = unusedInode();
    const std::string aside = "aside" + std::to_string(inode);
    if (!knowsNameless) return open(directory, name = aside, hxhost::OpenMode::kCreatePrivate);
    if (fails(DiskOperation::kLook)) return -failure;
    live_.inodes[inode] = synced_.inodes[inode] = {};
    openings_[++lastOpening_] = {inode};
    return lastOpening_;
  }

  int replace(int, const std::string& from, int file, const std::string& to) override {
    const std::string aside = from.empty() ? "/unnamed" : "/" + from;
    if (from.empty()) change({DiskOperation::kOpen, openings_.at(file).inode, aside});
    rename(aside, "/" + to);
    return hasFired ? failure : 0;
  }

  int close(int file) override {
    openings_.erase(file);
    return fails(DiskOperation::kLook) ? failure : 0;
  }

  int64_t readAt(int file, void* out, size_t count, int64_t offset) override {
    if (fails(DiskOperation::kRead, pathOf(file))) return -failure;
    const DiskBytes& bytes = bytesOf(file);
    const int64_t got = std::clamp<int64_t>(std::ssize(bytes) - offset, 0, transferred(count));
    if (got > 0) std::memcpy(out, bytes.data() + offset, static_cast<size_t>(got));
    return got;
  }

  void announceRead(int, int64_t offset, int64_t) override { announced.push_back(offset); }

  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override {
    if (fails(DiskOperation::kWrite, pathOf(file))) return -failure;
    const int64_t taken = transferred(count);
    const auto* from = static_cast<const uint8_t*>(bytes);
    change({DiskOperation::kWrite, openings_.at(file).inode, "", static_cast<size_t>(offset),
            DiskBytes(from, from + taken)});
    return taken;
  }

  int inspect(int file, hxhost::FileInfo& info) override {
    if (fails(DiskOperation::kLook)) return failure;
    info = infoOf(openings_.at(file).inode);
    info.isRegular = !hasBecomeDevice;
    return 0;
  }

  int inspectPath(const std::string& path, hxhost::FileInfo& info) override {
    if (fails(DiskOperation::kLook)) return failure;
    if (!live_.has(path)) return ENOENT;
    info = infoOf(live_.names.at(path));
    return 0;
  }

  int inspectName(int, const std::string& name, hxhost::FileInfo& info) override {
    return inspectPath("/" + name, info);
  }

  int truncate(int file, int64_t size) override {
    if (fails(DiskOperation::kTruncate, pathOf(file))) return failure;
    change({DiskOperation::kTruncate, openings_.at(file).inode, "", static_cast<size_t>(size)});
    return 0;
  }

  int sync(int file) override {
    if (fails(DiskOperation::kSync, pathOf(file))) return failure;
    const uint64_t inode = openings_.at(file).inode;
    settle([=](const DiskChange& done) { return done.inode == inode && done.path.empty(); });
    return 0;
  }

  int lock(int file, hxhost::LockPart part, hxhost::LockKind kind) override {
    using hxhost::LockKind;
    if (kind != LockKind::kNone && fails(DiskOperation::kLook)) return failure;
    Opening& own = openings_.at(file);
    for (const auto& [number, other] : openings_) {
      const LockKind held = other.locks[static_cast<size_t>(part)];
      if (number == file || other.inode != own.inode || held == LockKind::kNone) continue;
      const bool sharesIt = kind == LockKind::kShared && held == LockKind::kShared;
      if (kind != LockKind::kNone && !sharesIt) return EAGAIN;
    }
    own.locks[static_cast<size_t>(part)] = kind;
    return 0;
  }

  int copyAccess(int, int) override { return fails(DiskOperation::kLook) ? failure : 0; }

  int syncDirectory(int) override {
    if (fails(DiskOperation::kSyncDirectory, "/")) return failure;
    settle([](const DiskChange& done) { return !done.path.empty(); });
    return 0;
  }

  int remove(int, const std::string& name, int file) override {
    const std::string path = "/" + name;
    if (fails(DiskOperation::kUnlink, path)) return failure;
    if (!live_.has(path)) return ENOENT;
    if (live_.names.at(path) != openings_.at(file).inode) return ESTALE;
    change({DiskOperation::kUnlink, live_.names.at(path), path});
    return 0;
  }

  // What another program does.
  void rename(const std::string& from, const std::string& to) {
    if (fails(DiskOperation::kRename, to)) return;
    change({DiskOperation::kRename, live_.names.at(from), to, 0, {}, from});
  }

  // A process dies: what it has open is closed.
  void closeAll() { openings_.clear(); }

  int resolve(const std::string& path, std::string& resolved) override {
    if (fails(DiskOperation::kLook)) return failure;
    resolved = path;
    return live_.has(path) ? 0 : ENOENT;
  }

 private:
  struct Opening {
    uint64_t inode;
    std::array<hxhost::LockKind, 2> locks = {};
  };

  bool fails(DiskOperation operation, const std::string& path = "") {
    const bool isMeant = failAt == 0 || (failAt < 0 && hasFired && failsEverAfter);
    if (failAt >= 0) --failAt;
    hasFired |= isMeant;
    if (!isMeant && watch) watch({operation, path});
    return isMeant;
  }

  const DiskBytes& bytesOf(int file) const { return live_.inodes.at(openings_.at(file).inode); }

  std::string pathOf(int file) const {
    for (const auto& [path, inode] : live_.names)
      if (inode == openings_.at(file).inode) return path;
    return "";
  }

  hxhost::FileInfo infoOf(uint64_t inode) const {
    const auto owner = live_.owners.find(inode);
    const uint32_t user = owner == live_.owners.end() ? 0 : owner->second;
    return {true, false, std::ssize(live_.inodes.at(inode)), 1, inode, user, live_.birth};
  }

  int64_t transferred(size_t count) const {
    return static_cast<int64_t>(fallsShort ? (count + 1) / 2 : count);
  }

  void change(const DiskChange& done) {
    done.applyTo(live_);
    pending_.push_back(done);
  }

  void settle(const std::function<bool(const DiskChange&)>& isMeant) {
    for (const DiskChange& done : pending_)
      if (isMeant(done)) done.applyTo(synced_);
    std::erase_if(pending_, isMeant);
  }

  DiskImage live_, synced_;
  std::vector<DiskChange> pending_;
  std::map<int, Opening> openings_;
  uint64_t unusedInode() const {
    return live_.inodes.empty() ? 1 : live_.inodes.rbegin()->first + 1;
  }

  static constexpr int kDirectory = 1 << 20;  // "/"; the system's own descriptors are lower
  int lastOpening_ = kDirectory;
};

}  // namespace hxtest
