#include "inspect/ledger.h"

#include <algorithm>

namespace hxcrate {

namespace {

// Nesting may be a million levels deep; a path for people is not.
constexpr std::size_t kLongestPath = 4096;

}  // namespace

std::string Ledger::pathOf(std::size_t member) const {
  if (member >= members.size()) return "";
  std::vector<const std::string*> names;
  std::size_t length = 0;
  for (; member != 0 && length < kLongestPath; member = members[member].container) {
    names.push_back(&members[member].name);
    length += names.back()->size() + 1;
  }
  std::string path = member == 0 ? "" : ".../";
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    path += **name;
    if (std::next(name) != names.rend()) path += '/';
  }
  return path;
}

std::string Ledger::describeOwner(std::size_t member) const {
  if (member == kNoMember) return "the header";
  return member == 0 ? "the store itself" : pathOf(member);
}

std::optional<hx::Entry> Ledger::takeEntry(const Link& link, std::size_t owner) {
  const int64_t at = hx::targetOf(link.value);
  if (!isFree(link, at, hx::kEntrySize)) return std::nullopt;
  std::optional<hx::Entry> entry = reader.readEntry(at);
  settle(link, {at, at + hx::kEntrySize}, entry.has_value(), owner);
  return entry;
}

std::optional<hx::DataChunk> Ledger::takeChunk(const Link& link, std::size_t owner) {
  const int64_t at = link.value;
  if (!isFree(link, at, hx::kChunkSize)) return std::nullopt;
  std::optional<hx::DataChunk> chunk = reader.readChunk(at);
  settle(link, {at, at + hx::kChunkSize}, chunk.has_value(), owner);
  return chunk;
}

std::size_t Ledger::enterLostStore() {
  if (!lostStore_) {
    lostStore_ = members.size();
    members.push_back({"lost+found", 0, -1, 0, 0, MemberKind::store, true});
  }
  return *lostStore_;
}

bool Ledger::isFree(const Link& link, int64_t at, int32_t size) const {
  const std::string what = std::string(link.field) + " is " + std::to_string(link.value);
  if (!reader.holds(at, size)) {
    const int64_t last = reader.length() - size;
    const std::string room =
        last < hx::kHeaderSize
            ? "in a file with no room for a record"
            : "no place for a record: those are from 40 to " + std::to_string(last);
    report(Severity::error, link.offset, link.holder, what + ", " + room);
    return false;
  }
  const OwnedRange owned = claimed.findOwned({at, at + size});
  if (owned.range.length() == 0) return true;
  report(Severity::error, link.offset, link.holder,
         what + ", but bytes " + std::to_string(owned.range.start) + " to " +
             std::to_string(owned.range.end - 1) + " there belong to " +
             describeOwner(owned.owner));
  return false;
}

void Ledger::settle(const Link& link, ByteRange record, bool wasRead, std::size_t owner) {
  if (wasRead) return claimed.claim(record, owner);
  report(Severity::error, record.start, link.holder,
         "the record that " + std::string(link.field) + " leads to can't be read");
}

}  // namespace hxcrate
