#include "host/linux/journal_format.h"

#include <algorithm>
#include <cstring>

namespace hxhost {
namespace {

constexpr uint64_t kFactor = 0x9e3779b97f4a7c15u;

// Multiplying carries upwards only; the shift brings what went up back down.
uint64_t mix(uint64_t state, uint64_t word) {
  state = (state ^ word) * kFactor;
  return state ^ state >> 32;
}

}  // namespace

std::string journalNameOf(const std::string& name) {
  return name + "-journal";
}

uint64_t journalChecksum(uint64_t seed, const void* bytes, size_t count) {
  uint64_t state = mix(seed, count);
  for (size_t done = 0; done < count; done += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, static_cast<const std::byte*>(bytes) + done,
                std::min(count - done, sizeof(word)));
    state = mix(state, word);
  }
  return mix(state, kFactor);
}

uint64_t checksumOf(const JournalHeader& header) {
  return journalChecksum(kJournalMagic, &header, offsetof(JournalHeader, checksum));
}

uint64_t checksumOf(const JournalRecord& record, const void* block, uint64_t salt) {
  const uint64_t state = journalChecksum(salt, &record, offsetof(JournalRecord, checksum));
  return journalChecksum(state, block, static_cast<size_t>(record.length));
}

bool canBeJournal(const JournalHeader& header, size_t count) {
  const JournalHeader nothing{};
  return std::memcmp(&header, &nothing, count) == 0 ||
         std::memcmp(&header, &kJournalMagic, std::min(count, sizeof(kJournalMagic))) == 0;
}

bool isWhole(const JournalHeader& header) {
  return header.magic == kJournalMagic && header.checksum == checksumOf(header) &&
         header.fileLength >= 0;
}

bool isSound(const JournalRecord& record, const JournalHeader& header) {
  if (record.offset < 0 || record.offset >= header.fileLength) return false;
  return record.offset % kJournalBlockBytes == 0 &&
         record.length == std::min(kJournalBlockBytes, header.fileLength - record.offset);
}

}  // namespace hxhost
