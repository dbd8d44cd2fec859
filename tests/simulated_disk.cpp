#include "tests/simulated_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace hxtest {

using hxhost::FileInfo;
using hxhost::LockKind;
using hxhost::OpenMode;

SimulatedDisk::SimulatedDisk(const DiskImage& image) {
  for (const auto& [path, file] : image.files) {
    names_[path] = file.inode;
    inodes_[file.inode] = file.bytes;
    lastInode_ = std::max(lastInode_, file.inode);
  }
  syncedNames_ = names_;
  syncedInodes_ = inodes_;
}

bool SimulatedDisk::hasPending(uint64_t inode) const {
  return std::any_of(pending_.begin(), pending_.end(), [&](const DiskChange& change) {
    return change.inode == inode && change.path.empty();
  });
}

DiskImage SimulatedDisk::imageOf(const Names& names, const Inodes& inodes) {
  DiskImage image;
  for (const auto& [path, inode] : names)
    image.files[path] = {inode, inodes.at(inode)};
  return image;
}

DiskImage SimulatedDisk::live() const {
  return imageOf(names_, inodes_);
}

DiskImage SimulatedDisk::synced() const {
  return imageOf(syncedNames_, syncedInodes_);
}

DiskImage SimulatedDisk::afterPowerCut(const std::vector<Fate>& fates, std::mt19937& random) const {
  Names names = syncedNames_;
  Inodes inodes = syncedInodes_;
  for (size_t i = 0; i < pending_.size(); ++i) {
    if (fates[i] == Fate::kDropped) continue;
    apply(pending_[i], names, inodes, fates[i] == Fate::kTorn ? &random : nullptr);
  }
  return imageOf(names, inodes);
}

void SimulatedDisk::apply(const DiskChange& change, Names& names, Inodes& inodes,
                          std::mt19937* tearing) {
  DiskBytes& bytes = inodes[change.inode];
  if (change.kind == ChangeKind::kCreate) names[change.path] = change.inode;
  if (change.kind == ChangeKind::kUnlink) names.erase(change.path);
  if (change.kind == ChangeKind::kTruncate) bytes.resize(static_cast<size_t>(change.offset));
  if (change.kind != ChangeKind::kWrite) return;
  const int64_t end = change.offset + std::ssize(change.bytes);
  bytes.resize(static_cast<size_t>(std::max(std::ssize(bytes), end)));
  for (int64_t from = change.offset; from < end;) {
    const int64_t to = std::min(end, (from / kSector + 1) * kSector);
    if (tearing == nullptr || (*tearing)() % 2 == 0) {
      std::copy(change.bytes.begin() + (from - change.offset),
                change.bytes.begin() + (to - change.offset), bytes.begin() + from);
    }
    from = to;
  }
}

bool SimulatedDisk::begin(DiskOperation operation, const std::string& path, int64_t offset,
                          int64_t count) {
  const bool fails = failAt == 0 || (failAt < 0 && hasFired && failsEverAfter);
  if (failAt >= 0) --failAt;
  hasFired |= fails;
  if (!fails && watch) watch(operation, path, offset, count);
  return !fails;
}

std::string SimulatedDisk::pathOf(uint64_t inode) const {
  for (const auto& [path, named] : names_) {
    if (named == inode) return path;
  }
  return "";
}

void SimulatedDisk::change(DiskChange change) {
  apply(change, names_, inodes_, nullptr);
  pending_.push_back(std::move(change));
}

template <typename Condition>
void SimulatedDisk::settle(Condition isMeant) {
  for (const DiskChange& change : pending_) {
    if (isMeant(change)) apply(change, syncedNames_, syncedInodes_, nullptr);
  }
  std::erase_if(pending_, isMeant);
}

int SimulatedDisk::open(const std::string& path, OpenMode mode) {
  if (!begin(DiskOperation::kOpen, path)) return -failure;
  if (isReadOnly && mode != OpenMode::kRead) return -EACCES;
  const auto found = names_.find(path);
  const bool isNew = mode == OpenMode::kCreateNew || mode == OpenMode::kCreatePrivate;
  if (found != names_.end() && isNew) return -EEXIST;
  if (found == names_.end() && !isNew && mode != OpenMode::kCreate) return -ENOENT;
  if (found == names_.end()) change({ChangeKind::kCreate, ++lastInode_, path, 0, {}});
  openings_[++lastOpening_] = {names_[path]};
  return lastOpening_;
}

int SimulatedDisk::close(int file) {
  const bool works = begin(DiskOperation::kOther, "");
  openings_.erase(file);
  return works ? 0 : -failure;
}

int64_t SimulatedDisk::readAt(int file, void* out, size_t count, int64_t offset) {
  const DiskBytes& bytes = inodes_[openings_.at(file).inode];
  if (!begin(DiskOperation::kRead, pathOf(openings_.at(file).inode))) return -failure;
  const int64_t wanted = static_cast<int64_t>(fallsShort ? (count + 1) / 2 : count);
  const int64_t got = std::clamp<int64_t>(std::ssize(bytes) - offset, 0, wanted);
  if (got > 0) std::memcpy(out, bytes.data() + offset, static_cast<size_t>(got));
  return got;
}

int64_t SimulatedDisk::writeAt(int file, const void* bytes, size_t count, int64_t offset) {
  const uint64_t inode = openings_.at(file).inode;
  int64_t wanted = static_cast<int64_t>(fallsShort ? (count + 1) / 2 : count);
  if (!begin(DiskOperation::kWrite, pathOf(inode), offset, wanted)) return -failure;
  int64_t used = offset - std::ssize(inodes_[inode]);
  for (const auto& [path, named] : names_)
    used += std::ssize(inodes_[named]);
  if (offset + wanted > std::ssize(inodes_[inode])) {
    wanted = std::min(wanted, std::max(capacity - used, std::ssize(inodes_[inode]) - offset));
  }
  if (wanted <= 0) return -ENOSPC;
  const auto* from = static_cast<const uint8_t*>(bytes);
  change({ChangeKind::kWrite, inode, "", offset, DiskBytes(from, from + wanted)});
  return wanted;
}

int SimulatedDisk::inspect(int file, FileInfo& info) {
  if (!begin(DiskOperation::kOther, "")) return -failure;
  const uint64_t inode = openings_.at(file).inode;
  info = {true, false, std::ssize(inodes_[inode]), 1, inode};
  return 0;
}

int SimulatedDisk::inspectPath(const std::string& path, FileInfo& info) {
  if (!begin(DiskOperation::kOther, path)) return -failure;
  const auto found = names_.find(path);
  if (found == names_.end()) return -ENOENT;
  info = {true, false, std::ssize(inodes_[found->second]), 1, found->second};
  return 0;
}

int SimulatedDisk::truncate(int file, int64_t size) {
  const uint64_t inode = openings_.at(file).inode;
  if (!begin(DiskOperation::kTruncate, pathOf(inode), size)) return -failure;
  change({ChangeKind::kTruncate, inode, "", size, {}});
  return 0;
}

int SimulatedDisk::sync(int file) {
  const uint64_t inode = openings_.at(file).inode;
  if (!begin(DiskOperation::kSync, pathOf(inode))) return -failure;
  settle([&](const DiskChange& change) { return change.inode == inode && change.path.empty(); });
  return 0;
}

int SimulatedDisk::lock(int file, LockKind kind) {
  if (!begin(DiskOperation::kOther, "")) return -failure;
  Opening& own = openings_.at(file);
  for (const auto& [number, other] : openings_) {
    if (number == file || other.inode != own.inode || other.lock == LockKind::kNone) continue;
    if (kind == LockKind::kExclusive) return -EAGAIN;
    if (kind == LockKind::kShared && other.lock == LockKind::kExclusive) return -EAGAIN;
  }
  own.lock = kind;
  return 0;
}

int SimulatedDisk::copyAccess(int, int) {
  return begin(DiskOperation::kOther, "") ? 0 : -failure;
}

int SimulatedDisk::syncDirectory(const std::string& path) {
  if (!begin(DiskOperation::kSyncDirectory, path)) return -failure;
  settle([](const DiskChange& change) { return !change.path.empty(); });
  return 0;
}

int SimulatedDisk::remove(const std::string& path) {
  if (!begin(DiskOperation::kUnlink, path)) return -failure;
  const auto found = names_.find(path);
  if (found == names_.end()) return -ENOENT;
  change({ChangeKind::kUnlink, found->second, path, 0, {}});
  return 0;
}

int SimulatedDisk::resolve(const std::string& path, std::string& resolved) {
  if (!begin(DiskOperation::kOther, path)) return -failure;
  resolved = path;
  return names_.count(path) != 0 ? 0 : -ENOENT;
}

}  // namespace hxtest
