// The writing of a rollback journal (journal_format.h), for one update of one file.
//
//   1. Nothing of the file changes before the journal's header, and its name, are on disk.
//   2. No block below the file's former length changes before its record is on disk.
//   3. The journal goes only when the file's new bytes are on disk. That it is gone, on disk, is
//      the moment at which the update has happened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "host/linux/linux_host.h"
#include "host/linux/regular_file.h"

namespace hxhost {

// One thread at a time calls it. All operations return 0 or an errno. The file is open, locked
// exclusively, and outlives the journal.
class Journal {
 public:
  Journal(FileOps& ops, const RegularFile& file, Durability durability);

  // Whether it is beside the file, so that the file must be rolled back or the journal removed.
  bool exists() const { return journal_.isOpen(); }

  // Whether the file may have changed since.
  bool wasOnDisk() const { return exists() && synced_ > 0; }

  // Whether one of the blocks that [offset, offset + count) touches needs a record still.
  bool lacksRecords(int64_t offset, int64_t count) const;

  // Takes note of the blocks that are about to be overwritten, and makes the journal when there is
  // none yet. Not on disk before `putOnDisk`.
  int record(int64_t offset, int64_t count) noexcept;

  // Invariants 1 and 2 hold afterwards for everything recorded.
  int putOnDisk() noexcept;

  // Makes the file what it was. The journal stays when that fails, for the next open.
  int rollBack(RegularFile& file) noexcept;

  // Whether it is seen beside the file; false also when that can't be told.
  bool isThere() noexcept;

  // Removes the journal; invariant 3's first half is the caller's.
  int remove() noexcept;

  // Puts on disk that the journal is there, or that it is gone.
  int syncName() noexcept;

 private:
  int begin();
  int recordBlocks(int64_t first, int64_t end);
  int recordRun(int64_t offset, int64_t end);
  void append(const void* bytes, size_t count);
  int writePending();
  bool isFull() const { return durability_ == Durability::full; }

  FileOps& ops_;
  const RegularFile& file_;
  const Durability durability_;
  const int64_t formerLength_;
  Descriptor journal_;
  uint64_t salt_ = 0;
  std::unordered_set<int64_t> recorded_;  // blocks, by number
  std::vector<std::byte> pending_;        // the journal's end, not yet written
  std::vector<std::byte> blocks_;         // read from the file
  int64_t written_ = 0;                   // bytes of the journal
  int64_t synced_ = 0;                    // of them, on disk
};

}  // namespace hxhost
