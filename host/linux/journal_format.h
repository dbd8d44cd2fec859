// The rollback journal on disk: what a store's file was before an update began. It lies beside the
// file, under its path with "-journal" behind it, from before the first change of the file until
// the update is complete; while it is there the file is what the journal makes of it.
//
// A header, and behind it one record for every block below the file's former length that the update
// was about to overwrite, in no order. Native byte order: a journal never leaves its machine. What
// stands behind the last whole record is not there: it was not on disk when the block changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace hxhost {

// The header has a sector of its own: no later write can tear it.
constexpr int64_t kJournalHeaderBytes = 512;
constexpr int64_t kJournalBlockBytes = 4096;

enum JournalFlag : uint32_t {
  kFileCreated = 1  // the update created the file: it goes when the update is rolled back
};

//   off width field       rule
//     0   8   magic       kJournalMagic
//     8   4   version     1; a journal of another version is not touched, nor its file opened
//    12   4   flags       JournalFlag
//    16   8   fileLength  bytes, before the update
//    24   8   inode       of the file: a journal beside another one is not applied
//    32   8   birth       of the file, in ns since 1970, as inode numbers are used again; 0 where
//                         the system does not know it
//    40   8   salt        of the records' checksums: a record of an earlier journal is none of this
//    48   8   checksum    of the 48 bytes before
//    56  456              zero
struct JournalHeader {
  uint64_t magic;
  uint32_t version;
  uint32_t flags;
  int64_t fileLength;
  uint64_t inode;
  int64_t birth;
  uint64_t salt;
  uint64_t checksum;
  uint8_t padding[456];
};
static_assert(sizeof(JournalHeader) == kJournalHeaderBytes);
static_assert(offsetof(JournalHeader, checksum) == 48);

//   off width field     rule
//     0   8   offset    of the block in the file, a multiple of kJournalBlockBytes
//     8   8   length    kJournalBlockBytes, less where the file ended within the block
//    16   8   checksum  of the 16 bytes before and the block, begun with the salt
//    24       the block's bytes
struct JournalRecord {
  int64_t offset;
  int64_t length;
  uint64_t checksum;
};
static_assert(sizeof(JournalRecord) == 24);

constexpr uint64_t kJournalMagic = 0x0a4c4e524a5848ffu;  // never text
constexpr uint32_t kJournalVersion = 1;

std::string journalNameOf(const std::string& name);

uint64_t journalChecksum(uint64_t seed, const void* bytes, size_t count);
uint64_t checksumOf(const JournalHeader& header);
uint64_t checksumOf(const JournalRecord& record, const void* block, uint64_t salt);

// Whether the first `count` bytes of a file, the rest of the header being zero, can be what an
// update left there: nothing, a header that a power cut kept from the disk, or a part of one at
// least.
bool canBeJournal(const JournalHeader& header, size_t count);

// Whether it was written whole, in any version.
bool isWhole(const JournalHeader& header);

// Whether the record can belong to that journal; its block is then the length that it says.
bool isSound(const JournalRecord& record, const JournalHeader& header);

}  // namespace hxhost
