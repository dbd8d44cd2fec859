// What is known of a file so far: its members, who owns which bytes, and what was found wrong.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/claimed_bytes.h"
#include "inspect/record_reader.h"

namespace hxcrate {

using FindingHandler = std::function<void(const Finding&)>;

// A field that leads to a record.
struct Link {
  int64_t value;       // as it is stored
  const char* field;   // its name
  int64_t offset;      // of the field itself
  std::size_t holder;  // whose record it is in; kNoMember: the header
};

class Ledger {
 public:
  Ledger(const ByteSource& source, FindingHandler onFinding, const HeaderOverride& header)
      : reader(source, header), onFinding_(std::move(onFinding)) {
    claimed.claim({0, hx::kHeaderSize}, kNoMember);
  }

  void report(Severity severity, int64_t offset, std::size_t member, std::string reason) const {
    if (onFinding_) onFinding_({severity, offset, pathOf(member), std::move(reason)});
  }
  std::string pathOf(std::size_t member) const;

  // The record that the link leads to, for its new owner. Nothing, after a finding, when it lies
  // outside of the file, when its bytes have an owner, or when it can't be read.
  std::optional<hx::Entry> takeEntry(const Link& link, std::size_t owner);
  std::optional<hx::DataChunk> takeChunk(const Link& link, std::size_t owner);

  // "a/b" or "the header", for sentences.
  std::string describeOwner(std::size_t member) const;

  // The store "lost+found", made behind all members at the first call. Its index.
  std::size_t enterLostStore();

  const RecordReader reader;
  ClaimedBytes claimed;
  std::vector<InspectedMember> members;

 private:
  bool isFree(const Link& link, int64_t at, int32_t size) const;
  void settle(const Link& link, ByteRange record, bool wasRead, std::size_t owner);

  FindingHandler onFinding_;
  std::optional<std::size_t> lostStore_;
};

}  // namespace hxcrate
