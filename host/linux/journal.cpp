#include "host/linux/journal.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>

#include "host/linux/journal_format.h"
#include "host/linux/rollback.h"
#include "host/linux/transfer.h"

namespace hxhost {
namespace {

// Records are written together, and the blocks for them read together, in stretches of this size.
constexpr int64_t kBatchBytes = 256 * 1024;

uint64_t makeSalt() {
  uint64_t salt = 0;
  if (::getrandom(&salt, sizeof(salt), 0) == static_cast<ssize_t>(sizeof(salt))) return salt;
  return static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

int64_t blockOf(int64_t offset) {
  return offset / kJournalBlockBytes;
}

int64_t blockBehind(int64_t offset) {
  return blockOf(offset + kJournalBlockBytes - 1);
}

}  // namespace

Journal::Journal(FileOps& ops, const RegularFile& file, Durability durability)
    : ops_(ops), file_(file), durability_(durability), formerLength_(file.info.size) {}

bool Journal::lacksRecords(int64_t offset, int64_t count) const {
  const int64_t end = blockBehind(std::min(offset + count, formerLength_));
  for (int64_t block = blockOf(offset); block < end; ++block) {
    if (recorded_.count(block) == 0) return true;
  }
  return false;
}

int Journal::record(int64_t offset, int64_t count) noexcept try {
  if (!exists()) {
    if (const int error = begin(); error != 0) return error;
  }
  return recordBlocks(blockOf(offset), blockBehind(std::min(offset + count, formerLength_)));
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

int Journal::begin() {
  const int number = ops_.open(file_.directory.number(), journalNameOf(nameOf(file_.path)),
                               OpenMode::kCreatePrivate);
  if (number < 0) return -number;
  journal_ = Descriptor(ops_, number);
  const int error = ops_.copyAccess(file_.descriptor.number(), number);
  if (error != 0) return error;
  salt_ = makeSalt();
  JournalHeader header{};
  header.magic = kJournalMagic;
  header.version = kJournalVersion;
  header.flags = file_.wasCreated ? uint32_t{kFileCreated} : 0;
  header.fileLength = formerLength_;
  header.inode = file_.info.inode;
  header.birth = file_.info.birth;
  header.salt = salt_;
  header.checksum = checksumOf(header);
  append(&header, sizeof(header));
  return 0;
}

// Blocks that lie together and have no record yet are read in one go.
int Journal::recordBlocks(int64_t first, int64_t end) {
  for (int64_t block = first; block < end; ++block) {
    if (recorded_.count(block) != 0) continue;
    int64_t behind = block + 1;
    const int64_t most = std::min(end, block + kBatchBytes / kJournalBlockBytes);
    while (behind < most && recorded_.count(behind) == 0)
      ++behind;
    const int64_t to = std::min(behind * kJournalBlockBytes, formerLength_);
    if (const int error = recordRun(block * kJournalBlockBytes, to); error != 0) return error;
    block = behind - 1;
  }
  return 0;
}

int Journal::recordRun(int64_t offset, int64_t end) {
  blocks_.resize(static_cast<size_t>(end - offset));
  const Transfer transfer =
      readAll(ops_, file_.descriptor.number(), blocks_.data(), end - offset, offset);
  if (transfer.count < end - offset) return transfer.reason();
  for (int64_t at = offset; at < end; at += kJournalBlockBytes) {
    const std::byte* block = blocks_.data() + (at - offset);
    JournalRecord record{at, std::min(kJournalBlockBytes, end - at), 0};
    record.checksum = checksumOf(record, block, salt_);
    append(&record, sizeof(record));
    append(block, static_cast<size_t>(record.length));
    recorded_.insert(blockOf(at));
  }
  return std::ssize(pending_) < kBatchBytes ? 0 : writePending();
}

void Journal::append(const void* bytes, size_t count) {
  const auto* from = static_cast<const std::byte*>(bytes);
  pending_.insert(pending_.end(), from, from + count);
}

int Journal::writePending() {
  const Transfer transfer =
      writeAll(ops_, journal_.number(), pending_.data(), std::ssize(pending_), written_);
  if (transfer.count < std::ssize(pending_)) return transfer.reason();
  written_ += transfer.count;
  pending_.clear();
  return 0;
}

int Journal::putOnDisk() noexcept {
  if (pending_.empty() && written_ == synced_) return 0;
  if (const int error = writePending(); error != 0) return error;
  if (isFull()) {
    if (const int error = ops_.sync(journal_.number()); error != 0) return error;
    if (synced_ == 0) {
      if (const int error = syncName(); error != 0) return error;
    }
  }
  synced_ = written_;
  return 0;
}

int Journal::rollBack(RegularFile& file) noexcept {
  if (!exists()) return 0;
  if (wasOnDisk()) {
    const int error = applyJournal(ops_, journal_.number(), file);
    if (error != 0) return error;
  }
  return remove();
}

bool Journal::isThere() noexcept try {
  FileInfo there{};
  FileInfo own{};
  const std::string name = journalNameOf(nameOf(file_.path));
  return ops_.inspectName(file_.directory.number(), name, there) == 0 &&
         ops_.inspect(journal_.number(), own) == 0 && isSameFile(there, own);
} catch (const std::bad_alloc&) {
  return false;
}

int Journal::remove() noexcept try {
  const std::string name = journalNameOf(nameOf(file_.path));
  return ops_.remove(file_.directory.number(), name, journal_.number());
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

int Journal::syncName() noexcept {
  return isFull() ? ops_.syncDirectory(file_.directory.number()) : 0;
}

}  // namespace hxhost
