#include "inspect/lost_members.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "inspect/directory_walk.h"

namespace hxcrate {

namespace {

constexpr int64_t kWindow = 1 << 20;
constexpr const char* kLostStore = "lost+found";

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
    for (const ByteRange& range : ledger_.claimed.listFree({0, reader_.length()}))
      search(range);
  }

  std::size_t adopt(const PageWalkOptions& options) {
    const std::size_t lost = ledger_.members.size();
    std::vector<Pending> pending = listMembersOf(kNoOffset, lost);
    if (pending.empty()) return lost;
    ledger_.members.push_back({kLostStore, 0, -1, 0, 0, MemberKind::store, true});
    while (!pending.empty()) {
      const Pending next = pending.back();
      pending.pop_back();
      const std::size_t index = ledger_.members.size();
      add(*next.candidate, next.container, options);
      if (next.candidate->kind != MemberKind::store) continue;
      const std::vector<Pending> inside = listMembersOf(next.candidate->at, index);
      pending.insert(pending.end(), inside.begin(), inside.end());
    }
    return lost;
  }

 private:
  static constexpr int64_t kNoOffset = -1;

  struct Pending {
    const Candidate* candidate;
    std::size_t container;
  };

  void search(ByteRange range) {
    std::vector<std::byte> window;
    for (int64_t at = range.start; at <= range.end - hx::kEntrySize;) {
      window.resize(static_cast<std::size_t>(std::min(kWindow, range.end - at)));
      window.resize(reader_.source().read(at, window));
      if (window.size() < hx::kEntrySize) return;
      at += searchWindow(window, at);
    }
  }

  // How far the bytes were looked at.
  int64_t searchWindow(const std::vector<std::byte>& window, int64_t start) {
    constexpr std::size_t kSize = hx::kEntrySize;
    std::size_t i = 0;
    while (i + kSize <= window.size()) {
      i += window[i + offsetof(hx::Entry, name)] != std::byte{0} &&
                   consider(window.data() + i, start + static_cast<int64_t>(i))
               ? kSize
               : 1;
    }
    return static_cast<int64_t>(i);
  }

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
           isEntryOr0(hx::entryOffsetOf(entry.next)) && isSoundName(entry.name);
  }

  bool leadsToOwnMember(const hx::Entry& entry, int64_t at) const {
    if (entry.firstLink == 0) return true;
    const int64_t first = hx::entryOffsetOf(entry.firstLink);
    if (!reader_.holds(first, hx::kEntrySize)) return false;
    const std::optional<hx::Entry> member = reader_.readEntry(first);
    return member && member->parentLink == at;
  }

  bool leadsToPage(const hx::Entry& entry) const {
    if (!reader_.holds(entry.firstLink, hx::kChunkSize)) return false;
    const std::optional<hx::DataChunk> chunk = reader_.readChunk(entry.firstLink);
    if (!chunk) return false;
    if (chunk->capacity == 0) {
      return chunk->dataOffset == 0 && chunk->used == 0 && chunk->next == 0;
    }
    const bool isLast = chunk->next == 0;
    return chunk->capacity == reader_.pageSize() && chunk->used <= chunk->capacity &&
           chunk->used >= (isLast ? 0 : chunk->capacity) &&
           (isLast || reader_.holds(chunk->next, hx::kChunkSize)) &&
           reader_.holds(chunk->dataOffset, chunk->used);
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

  // A whole store's own ENTRY, in no other, is one of these only where there is none that is known.
  void sortByContainers() {
    for (const Candidate& candidate : candidates_) {
      const int64_t container = candidate.entry.parentLink;
      if (isFoundStore(container)) {
        children_.emplace(container, &candidate);
      } else if (stores_.count(container) > 0 || isFoundTop(candidate)) {
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

  bool isFoundTop(const Candidate& candidate) const {
    return stores_.empty() && candidate.kind == MemberKind::store &&
           candidate.entry.parentLink == 0 && candidate.entry.firstLink != 0;
  }

  void add(const Candidate& candidate, std::size_t container, const PageWalkOptions& options) {
    const std::size_t index = ledger_.members.size();
    ledger_.members.push_back({nameIn(candidate.entry), container, candidate.at,
                               candidate.entry.firstLink, 0, candidate.kind, true});
    ledger_.claimed.claim({candidate.at, candidate.at + hx::kEntrySize}, index);
    if (options.onExtent) {
      options.onExtent({ByteKind::entry, candidate.at, hx::kEntrySize, index});
    }
    const auto former = stores_.find(candidate.entry.parentLink);
    if (options.onAdoption)
      options.onAdoption(index, former == stores_.end() ? container : former->second);
  }

  Ledger& ledger_;
  const RecordReader& reader_;
  std::unordered_map<int64_t, std::size_t> stores_;  // known ones, by the place of their ENTRY
  std::vector<Candidate> candidates_;                // by their places
  std::unordered_multimap<int64_t, const Candidate*> children_;
};

}  // namespace

std::size_t adoptLostMembers(Ledger& ledger, const PageWalkOptions& options) {
  LostMembers lost(ledger);
  lost.find();
  return lost.adopt(options);
}

}  // namespace hxcrate
