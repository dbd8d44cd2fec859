#include "inspect/lost_records.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "inspect/directory_walk.h"
#include "inspect/page_record.h"

namespace hxcrate {

namespace {

// Calls `consider(bytes, at)` for each place at which `size` free bytes begin, which `bytes` points
// to. When it returns true they are taken for a record, and the search goes on behind them.
template <typename Consider>
void searchFreeBytes(const Ledger& ledger, std::size_t size, Consider consider) {
  constexpr int64_t kWindow = 1 << 20;
  std::vector<std::byte> window;
  for (const ByteRange& range : ledger.claimed.listFree({0, ledger.reader.length()})) {
    for (int64_t at = range.start; range.end - at >= static_cast<int64_t>(size);) {
      at = std::max(at, ledger.reader.source().findData(at) - static_cast<int64_t>(size) + 1);
      if (range.end - at < static_cast<int64_t>(size)) break;
      window.resize(
          static_cast<std::size_t>(std::min(kWindow + static_cast<int64_t>(size), range.end - at)));
      window.resize(ledger.reader.source().read(at, window));
      if (window.size() < size) break;
      std::size_t i = 0;
      while (i + size <= window.size())
        i += consider(window.data() + i, at + static_cast<int64_t>(i)) ? size : 1;
      at += static_cast<int64_t>(i);
    }
  }
}

struct Candidate {
  int64_t at;
  hx::Entry entry;
  MemberKind kind;
};

bool isSoundName(const uint8_t (&field)[hx::kStoredNameLength]) {
  const uint8_t* end = field + hx::storedNameLength(field);
  return end != field && std::find(field, end, '/') == end &&
         std::all_of(end, std::end(field), [](uint8_t byte) { return byte == 0; });
}

class LostMembers {
 public:
  explicit LostMembers(Ledger& ledger) : ledger_(ledger), reader_(ledger.reader) {
    for (std::size_t i = 0; i < ledger.members.size(); ++i) {
      const InspectedMember& member = ledger.members[i];
      if (member.kind == MemberKind::store) stores_.emplace(member.entryOffset, i);
    }
  }

  void find() {
    searchFreeBytes(ledger_, hx::kEntrySize, [this](const std::byte* bytes, int64_t at) {
      return bytes[offsetof(hx::Entry, name)] != std::byte{0} && consider(bytes, at);
    });
  }

  void adopt(const PageWalkOptions& options) {
    std::vector<Pending> pending = listMembersOf(kNoOffset, 0);
    if (pending.empty()) return;
    const std::size_t lost = ledger_.enterLostStore();
    for (Pending& member : pending)
      member.container = lost;
    while (!pending.empty()) {
      const Pending next = pending.back();
      pending.pop_back();
      const std::size_t index = ledger_.members.size();
      add(*next.candidate, next.container, options);
      if (next.container == lost) report(*next.candidate, index);
      if (next.candidate->kind != MemberKind::store) continue;
      const std::vector<Pending> inside = listMembersOf(next.candidate->at, index);
      pending.insert(pending.end(), inside.begin(), inside.end());
    }
  }

 private:
  static constexpr int64_t kNoOffset = -1;

  struct Pending {
    const Candidate* candidate;
    std::size_t container;
  };

  bool consider(const std::byte* bytes, int64_t at) {
    hx::Entry entry;
    std::memcpy(&entry, bytes, sizeof(entry));
    reader_.arrange(entry);
    if (!isPlausible(entry)) return false;
    const bool isStore = leadsToOwnMember(entry, at);
    if (!isStore && !leadsToPage(entry)) return false;
    candidates_.push_back({at, entry, isStore ? MemberKind::store : MemberKind::item});
    return true;
  }

  bool isPlausible(const hx::Entry& entry) const {
    const auto isEntryOr0 = [&](int64_t offset) {
      return offset == 0 || reader_.holds(offset, hx::kEntrySize);
    };
    return isEntryOr0(entry.parentLink) && isEntryOr0(entry.previousLink) &&
           isEntryOr0(hx::targetOf(entry.next)) && isSoundName(entry.name);
  }

  bool leadsToOwnMember(const hx::Entry& entry, int64_t at) const {
    if (entry.firstLink == 0) return true;
    const int64_t first = hx::targetOf(entry.firstLink);
    if (!reader_.holds(first, hx::kEntrySize)) return false;
    const std::optional<hx::Entry> member = reader_.readEntry(first);
    return member && member->parentLink == at;
  }

  bool leadsToPage(const hx::Entry& entry) const {
    if (!reader_.holds(entry.firstLink, hx::kChunkSize)) return false;
    const std::optional<hx::DataChunk> chunk = reader_.readChunk(entry.firstLink);
    return chunk && isSound(*chunk, reader_);
  }

  // What was found of a store that was found too; for kNoOffset, what is in none of those. Last
  // first, since they are taken from the back.
  std::vector<Pending> listMembersOf(int64_t store, std::size_t container) {
    if (children_.empty()) sortByContainers();
    std::vector<Pending> members;
    const auto [begin, end] = children_.equal_range(store);
    for (auto child = begin; child != end; ++child)
      members.push_back({child->second, container});
    std::reverse(members.begin(), members.end());
    return members;
  }

  void sortByContainers() {
    for (const Candidate& candidate : candidates_) {
      const int64_t container = candidate.entry.parentLink;
      if (isFoundStore(container)) {
        children_.emplace(container, &candidate);
      } else if (stores_.count(container) > 0 || isTop(candidate)) {
        children_.emplace(kNoOffset, &candidate);
      }
    }
  }

  bool isFoundStore(int64_t offset) const {
    const auto found =
        std::lower_bound(candidates_.begin(), candidates_.end(), offset,
                         [](const Candidate& candidate, int64_t at) { return candidate.at < at; });
    return found != candidates_.end() && found->at == offset && found->kind == MemberKind::store;
  }

  // A whole store's own ENTRY, to which the header should have led.
  static bool isTop(const Candidate& candidate) {
    return candidate.kind == MemberKind::store && candidate.entry.parentLink == 0 &&
           candidate.entry.firstLink != 0;
  }

  void add(const Candidate& candidate, std::size_t container, const PageWalkOptions& options) {
    const std::size_t index = ledger_.members.size();
    ledger_.members.push_back({nameIn(candidate.entry), container, candidate.at,
                               candidate.entry.firstLink, 0, candidate.kind, true});
    ledger_.claimed.claim({candidate.at, candidate.at + hx::kEntrySize}, index);
    if (options.onExtent) {
      options.onExtent({ByteKind::entry, candidate.at, hx::kEntrySize, index});
    }
  }

  void report(const Candidate& candidate, std::size_t index) const {
    const auto former = stores_.find(candidate.entry.parentLink);
    const std::string place =
        former == stores_.end() ? "" : "; it was in " + ledger_.describeOwner(former->second);
    const bool isStore = candidate.kind == MemberKind::store;
    ledger_.report(Severity::error, candidate.at, index,
                   std::string(isStore ? "a store" : "an item") + " that nothing leads to" + place);
  }

  Ledger& ledger_;
  const RecordReader& reader_;
  std::unordered_map<int64_t, std::size_t> stores_;  // known ones, by the place of their ENTRY
  std::vector<Candidate> candidates_;                // by their places
  std::unordered_multimap<int64_t, const Candidate*> children_;
};

}  // namespace

void adoptLostMembers(Ledger& ledger, const PageWalkOptions& options) {
  LostMembers lost(ledger);
  lost.find();
  lost.adopt(options);
}

std::vector<int64_t> findLostChains(const Ledger& ledger) {
  std::vector<int64_t> heads;
  std::unordered_set<int64_t> followed;
  searchFreeBytes(ledger, hx::kChunkSize, [&](const std::byte* bytes, int64_t at) {
    hx::DataChunk chunk;
    std::memcpy(&chunk, bytes, sizeof(chunk));
    ledger.reader.arrange(chunk);
    if (chunk.capacity == 0 || !isSound(chunk, ledger.reader)) return false;
    if (chunk.used > 0) heads.push_back(at);
    if (chunk.next != 0) followed.insert(chunk.next);
    return true;
  });
  std::erase_if(heads, [&](int64_t at) { return followed.count(at) > 0; });
  return heads;
}

}  // namespace hxcrate
