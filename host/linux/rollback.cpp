#include "host/linux/rollback.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "host/linux/journal_format.h"
#include "host/linux/transfer.h"

namespace hxhost {
namespace {

// 0 also when there is none: then nothing is open.
int openJournal(FileOps& ops, const RegularFile& file, RegularFile& journal) {
  const int directory = file.directory.number();
  const std::string name = journalNameOf(nameOf(file.path));
  FileInfo& info = journal.info;
  const int looked = ops.inspectName(directory, name, info);
  if (looked != 0) return looked == ENOENT ? 0 : looked;
  if (!info.isRegular) return ENOTSUP;
  const int number = ops.open(directory, name, OpenMode::kRead);
  if (number == -ENOENT) return 0;
  if (number < 0) return -number;
  journal.descriptor = Descriptor(ops, number);
  const int unseen = ops.inspect(number, info);
  if (unseen != 0) return unseen;
  return info.isRegular ? 0 : ENOTSUP;
}

// A header that is not there whole is all zeros. ESTALE for what nobody left there as a journal.
int readHeader(FileOps& ops, int journal, JournalHeader& header) {
  header = {};
  const Transfer transfer = readAll(ops, journal, &header, kJournalHeaderBytes, 0);
  if (transfer.error != 0) return transfer.error;
  if (!canBeJournal(header, static_cast<size_t>(transfer.count))) return ESTALE;
  if (transfer.count < kJournalHeaderBytes || !isWhole(header)) header = {};
  return 0;
}

// Where the system tells a birth, a journal that has none was not written here.
bool isOf(const JournalHeader& header, const FileInfo& file) {
  return header.inode == file.inode && (file.birth == 0 || header.birth == file.birth);
}

// Where everybody may create files, anybody could put a journal of his own beside a store.
bool isTrusted(const FileInfo& journal, const FileInfo& file) {
  return journal.owner == file.owner || journal.owner == ::geteuid() || journal.owner == 0;
}

// An empty file can't be the rest of one that was longer, since updates never shorten a file: it
// was made anew. One that the update created may well be empty still.
int judge(const JournalHeader& header, const FileInfo& journal, const FileInfo& file,
          JournalState& state) {
  state = JournalState::kSpent;
  if (!isWhole(header)) return 0;
  if (!isTrusted(journal, file)) return EPERM;
  const bool isOfThisFile = isOf(header, file);
  const bool wasCreated = (header.flags & kFileCreated) != 0;
  if (file.size == 0 && !(isOfThisFile && wasCreated)) return 0;
  if (header.version != kJournalVersion) return ENOTSUP;
  if (!isOfThisFile || file.size < header.fileLength) return ESTALE;
  state = JournalState::kHot;
  return 0;
}

int examineOpened(FileOps& ops, const RegularFile& journal, const FileInfo& file,
                  JournalState& state) {
  state = JournalState::kNone;
  if (!journal.descriptor.isOpen()) return 0;
  JournalHeader header{};
  const int error = readHeader(ops, journal.descriptor.number(), header);
  return error != 0 ? error : judge(header, journal.info, file, state);
}

// What lies beside `file`, for a file there of which `info` tells.
int examineBeside(FileOps& ops, const RegularFile& file, const FileInfo& info,
                  JournalState& state) {
  RegularFile journal;
  int error = openJournal(ops, file, journal);
  if (error == ENAMETOOLONG) error = 0;  // none can be there
  return error != 0 ? error : examineOpened(ops, journal, info, state);
}

// Puts the blocks back, up to the first record that is not whole.
int restoreBlocks(FileOps& ops, int journal, const JournalHeader& header, int file) {
  std::array<std::byte, kJournalBlockBytes> block;
  for (int64_t position = kJournalHeaderBytes;;) {
    JournalRecord record{};
    Transfer transfer = readAll(ops, journal, &record, sizeof(record), position);
    if (transfer.error != 0) return transfer.error;
    if (!isSound(record, header)) return 0;  // the end, too: then it is zero, or short of itself
    position += transfer.count;
    transfer = readAll(ops, journal, block.data(), record.length, position);
    if (transfer.error != 0) return transfer.error;
    if (transfer.count < record.length) return 0;
    if (record.checksum != checksumOf(record, block.data(), header.salt)) return 0;
    position += record.length;
    transfer = writeAll(ops, file, block.data(), record.length, record.offset);
    if (transfer.count < record.length) return transfer.reason();
  }
}

// A created file is emptied first: its name may outlive a power cut that its journal's does not,
// and an empty file is no store. Whoever rolls back waits for the disk, whatever its own updates
// do: the journal, which goes next, may be of one that was to survive a power cut.
int restoreFile(FileOps& ops, const JournalHeader& header, RegularFile& file) {
  const int number = file.descriptor.number();
  if (const int error = ops.inspect(number, file.info); error != 0) return error;
  if (file.info.size > header.fileLength) {
    if (const int error = ops.truncate(number, header.fileLength); error != 0) return error;
  }
  if (const int error = ops.sync(number); error != 0) return error;
  if ((header.flags & kFileCreated) == 0) return 0;
  const int error = inspectAgain(ops, file);
  if (error != 0) return error == ENOENT ? 0 : error;
  return removeName(ops, file);
}

}  // namespace

int examineJournal(FileOps& ops, const RegularFile& file, JournalState& state) {
  return examineBeside(ops, file, file.info, state);
}

int recoverFile(FileOps& ops, RegularFile& file) {
  RegularFile journal;
  JournalState state{};
  int error = openJournal(ops, file, journal);
  if (error == 0) error = examineOpened(ops, journal, file.info, state);
  if (error != 0 || state == JournalState::kNone) return error;
  if (state == JournalState::kHot) {
    error = applyJournal(ops, journal.descriptor.number(), file);
    if (error != 0) return error;
  }
  const int directory = file.directory.number();
  const std::string name = journalNameOf(nameOf(file.path));
  error = ops.remove(directory, name, journal.descriptor.number());
  return error != 0 ? error : ops.syncDirectory(directory);
}

int clearJournal(FileOps& ops, RegularFile& file) {
  if (recoverFile(ops, file) == 0) return 0;
  JournalState state{};
  return examineBeside(ops, file, FileInfo{}, state);
}

int applyJournal(FileOps& ops, int journal, RegularFile& file) noexcept {
  JournalHeader header{};
  if (const int error = readHeader(ops, journal, header); error != 0) return error;
  if (!isWhole(header)) return EIO;
  const int error = restoreBlocks(ops, journal, header, file.descriptor.number());
  return error != 0 ? error : restoreFile(ops, header, file);
}

}  // namespace hxhost
