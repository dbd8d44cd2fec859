#include "tests/simulated_disk.h"

#include <algorithm>
#include <cstring>

namespace hxtest {

using hxhost::FileInfo;
using hxhost::LockKind;
using hxhost::OpenMode;

namespace {

constexpr int64_t kSector = 512;

// Writes are whole, or torn where `tearing` chooses.
void apply(const DiskChange& change, DiskImage& image, std::mt19937* tearing) {
  DiskBytes& bytes = image.inodes[change.inode];
  if (change.kind == ChangeKind::kCreate) image.names[change.path] = change.inode;
  if (change.kind == ChangeKind::kUnlink) image.names.erase(change.path);
  if (change.kind == ChangeKind::kTruncate) bytes.resize(static_cast<size_t>(change.offset));
  if (change.kind != ChangeKind::kWrite) return;
  const int64_t end = change.offset + std::ssize(change.bytes);
  bytes.resize(static_cast<size_t>(std::max(std::ssize(bytes), end)));
  for (int64_t from = change.offset, to = 0; from < end; from = to) {
    to = std::min(end, (from / kSector + 1) * kSector);
    if (tearing != nullptr && (*tearing)() % 2 != 0) continue;
    std::copy(change.bytes.begin() + (from - change.offset),
              change.bytes.begin() + (to - change.offset), bytes.begin() + from);
  }
}

}  // namespace

DiskImage SimulatedDisk::afterPowerCut(const std::vector<Fate>& fates, std::mt19937& random) const {
  DiskImage image = synced_;
  for (size_t i = 0; i < pending_.size(); ++i) {
    if (fates[i] == Fate::kDropped) continue;
    apply(pending_[i], image, fates[i] == Fate::kTorn ? &random : nullptr);
  }
  return image;
}

bool SimulatedDisk::begin(const DiskStep& step) {
  const bool fails = failAt == 0 || (failAt < 0 && hasFired && failsEverAfter);
  if (failAt >= 0) --failAt;
  hasFired |= fails;
  if (!fails && watch) watch(step);
  return !fails;
}

std::string SimulatedDisk::pathOf(uint64_t inode) const {
  const auto found = std::find_if(live_.names.begin(), live_.names.end(),
                                  [&](const auto& name) { return name.second == inode; });
  return found == live_.names.end() ? "" : found->first;
}

int64_t SimulatedDisk::transferred(size_t count) const {
  return static_cast<int64_t>(fallsShort ? (count + 1) / 2 : count);
}

// How long that file can be.
int64_t SimulatedDisk::room(uint64_t inode) const {
  int64_t room = capacity;
  for (const auto& [path, other] : live_.names)
    room -= other == inode ? 0 : std::ssize(live_.inodes.at(other));
  return std::max(room, std::ssize(live_.inodes.at(inode)));
}

void SimulatedDisk::change(DiskChange change) {
  apply(change, live_, nullptr);
  pending_.push_back(std::move(change));
}

void SimulatedDisk::settle(const std::function<bool(const DiskChange&)>& isMeant) {
  for (const DiskChange& change : pending_) {
    if (isMeant(change)) apply(change, synced_, nullptr);
  }
  std::erase_if(pending_, isMeant);
}

int SimulatedDisk::open(const std::string& path, OpenMode mode) {
  if (!begin({DiskOperation::kChange, path})) return -failure;
  if (isReadOnly && mode != OpenMode::kRead) return -EACCES;
  const bool isNew = mode == OpenMode::kCreateNew || mode == OpenMode::kCreatePrivate;
  if (live_.has(path) && isNew) return -EEXIST;
  if (!live_.has(path)) {
    if (!isNew && mode != OpenMode::kCreate) return -ENOENT;
    const uint64_t last = live_.inodes.empty() ? 0 : live_.inodes.rbegin()->first;
    change({ChangeKind::kCreate, last + 1, path, 0, {}});
  }
  openings_[++lastOpening_] = {live_.names[path]};
  return lastOpening_;
}

int SimulatedDisk::close(int file) {
  openings_.erase(file);
  return begin({DiskOperation::kLook, ""}) ? 0 : -failure;
}

int64_t SimulatedDisk::readAt(int file, void* out, size_t count, int64_t offset) {
  const uint64_t inode = openings_.at(file).inode;
  const DiskBytes& bytes = live_.inodes[inode];
  const int64_t wanted = transferred(count);
  if (!begin({DiskOperation::kRead, pathOf(inode)})) return -failure;
  const int64_t got = std::clamp<int64_t>(std::ssize(bytes) - offset, 0, wanted);
  if (got > 0) std::memcpy(out, bytes.data() + offset, static_cast<size_t>(got));
  return got;
}

int64_t SimulatedDisk::writeAt(int file, const void* bytes, size_t count, int64_t offset) {
  const uint64_t inode = openings_.at(file).inode;
  int64_t wanted = transferred(count);
  if (!begin({DiskOperation::kWrite, pathOf(inode)})) return -failure;
  wanted = std::min(wanted, room(inode) - offset);
  if (wanted <= 0) return -ENOSPC;
  const auto* from = static_cast<const uint8_t*>(bytes);
  change({ChangeKind::kWrite, inode, "", offset, DiskBytes(from, from + wanted)});
  return wanted;
}

int SimulatedDisk::inspect(int file, FileInfo& info) {
  if (!begin({DiskOperation::kLook, ""})) return -failure;
  const uint64_t inode = openings_.at(file).inode;
  info = {!hasBecomeDevice, false, std::ssize(live_.inodes[inode]), 1, inode};
  return 0;
}

int SimulatedDisk::inspectPath(const std::string& path, FileInfo& info) {
  if (!begin({DiskOperation::kLook, path})) return -failure;
  if (!live_.has(path)) return -ENOENT;
  info = {true, false, std::ssize(live_.at(path)), 1, live_.names.at(path)};
  return 0;
}

int SimulatedDisk::truncate(int file, int64_t size) {
  const uint64_t inode = openings_.at(file).inode;
  if (!begin({DiskOperation::kChange, pathOf(inode)})) return -failure;
  change({ChangeKind::kTruncate, inode, "", size, {}});
  return 0;
}

int SimulatedDisk::sync(int file) {
  const uint64_t inode = openings_.at(file).inode;
  if (!begin({DiskOperation::kSync, pathOf(inode)})) return -failure;
  settle([&](const DiskChange& change) { return change.inode == inode && change.path.empty(); });
  return 0;
}

int SimulatedDisk::lock(int file, LockKind kind) {
  if (!begin({DiskOperation::kLook, ""})) return -failure;
  Opening& own = openings_.at(file);
  for (const auto& [number, other] : openings_) {
    if (number == file || other.inode != own.inode || other.lock == LockKind::kNone) continue;
    const bool sharesIt = kind == LockKind::kShared && other.lock == LockKind::kShared;
    if (kind != LockKind::kNone && !sharesIt) return -EAGAIN;
  }
  own.lock = kind;
  return 0;
}

int SimulatedDisk::copyAccess(int, int) {
  return begin({DiskOperation::kLook, ""}) ? 0 : -failure;
}

int SimulatedDisk::syncDirectory(const std::string& path) {
  if (!begin({DiskOperation::kSyncDirectory, path})) return -failure;
  settle([](const DiskChange& change) { return !change.path.empty(); });
  return 0;
}

int SimulatedDisk::remove(const std::string& path) {
  if (!begin({DiskOperation::kUnlink, path})) return -failure;
  if (!live_.has(path)) return -ENOENT;
  change({ChangeKind::kUnlink, live_.names.at(path), path, 0, {}});
  return 0;
}

int SimulatedDisk::resolve(const std::string& path, std::string& resolved) {
  if (!begin({DiskOperation::kLook, path})) return -failure;
  resolved = path;
  return live_.has(path) ? 0 : -ENOENT;
}

}  // namespace hxtest
