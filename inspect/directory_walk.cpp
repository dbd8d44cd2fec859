#include "inspect/directory_walk.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

namespace hxcrate {

namespace {

constexpr int64_t kHeaderCode = offsetof(hx::Header, pageSizeCode);

std::string unlike(const char* field, int64_t found, const std::string& expected) {
  return std::string(field) + " is " + std::to_string(found) + ", not " + expected;
}

struct EntryField {
  const char* name;
  int64_t hx::Entry::*field;
  int64_t offset;

  int64_t in(const hx::Entry& entry) const { return entry.*field; }
};

constexpr EntryField kParentLink = {"parentLink", &hx::Entry::parentLink,
                                    offsetof(hx::Entry, parentLink)};
constexpr EntryField kPreviousLink = {"previousLink", &hx::Entry::previousLink,
                                      offsetof(hx::Entry, previousLink)};
constexpr EntryField kNext = {"next", &hx::Entry::next, offsetof(hx::Entry, next)};
constexpr EntryField kFirstLink = {"firstLink", &hx::Entry::firstLink,
                                   offsetof(hx::Entry, firstLink)};
constexpr int64_t kName = offsetof(hx::Entry, name);

// The link in a member's ENTRY.
Link linkIn(const hx::Entry& entry, const EntryField& field, int64_t at, std::size_t holder) {
  return {field.in(entry), field.name, at + field.offset, holder};
}

class DirectoryWalk {
 public:
  explicit DirectoryWalk(Ledger& ledger) : ledger_(ledger), members_(ledger.members) {}

  void walk() {
    checkPageSizeCode();
    std::optional<Link> link = enterTop();
    while (link) {
      link = hx::endsChain(link->value) ? leave(*link) : follow(*link);
    }
    reportSharedNames();
  }

 private:
  // A store whose members are being read; the walk goes on in its container behind it.
  struct Level {
    std::size_t store;
    Link behind;
    int64_t previous = 0;  // ENTRY of the member read last
  };

  void checkPageSizeCode() const {
    const int64_t code = ledger_.reader.header().pageSizeCode;
    if (ledger_.reader.pageSize() == 0) {
      report(Severity::error, kHeaderCode, kNoMember,
             unlike("pageSizeCode", code, "0 or -1 to -2147483647"));
    } else if (code > 0 || code == -hx::kDefaultPageSize) {
      report(Severity::warning, kHeaderCode, kNoMember,
             unlike("pageSizeCode", code, "0, as it is written for pages of 4096 bytes"));
    }
  }

  // Where the top-level store's members begin.
  std::optional<Link> enterTop() {
    const Link link{ledger_.reader.header().directoryOffset, "directoryOffset",
                    offsetof(hx::Header, directoryOffset), kNoMember};
    if (link.value == 0) {
      report(Severity::note, link.offset, kNoMember, "directoryOffset is 0: there is no directory");
      return std::nullopt;
    }
    if (link.value < 0) {
      report(Severity::error, link.offset, kNoMember,
             unlike(link.field, link.value, "the place of an ENTRY"));
      return std::nullopt;
    }
    const std::optional<hx::Entry> entry = ledger_.takeEntry(link, 0);
    if (!entry) return std::nullopt;
    addMember(*entry, link.value, 0, MemberKind::store);
    checkTop(*entry, link.value);
    levels_.push_back({0, {}, 0});
    return linkIn(*entry, kFirstLink, link.value, 0);
  }

  // An empty store in memory may well have no name, but then its record is all that there is.
  void checkTop(const hx::Entry& entry, int64_t at) const {
    if (isAllZero(entry) && ledger_.reader.length() > hx::kHeaderSize + hx::kEntrySize) {
      return reportZeros(at, 0);
    }
    for (const EntryField& field : {kParentLink, kPreviousLink, kNext})
      expect(entry, field, 0, " in a whole store's ENTRY", at, 0);
    checkName(entry, at, 0);
  }

  std::optional<Link> follow(const Link& link) {
    Level& level = levels_.back();
    const std::size_t index = members_.size();
    const std::optional<hx::Entry> entry = ledger_.takeEntry(link, index);
    if (!entry) {
      members_[level.store].isWhole = false;
      return Link{0, link.field, link.offset, link.holder};
    }
    const int64_t at = hx::targetOf(link.value);
    const bool isItem = hx::leadsToItem(link.value);
    addMember(*entry, at, level.store, isItem ? MemberKind::item : MemberKind::store);
    checkMember(*entry, at, index);
    level.previous = at;
    const Link behind = linkIn(*entry, kNext, at, index);
    if (isItem) return behind;
    levels_.push_back({index, behind, 0});
    return linkIn(*entry, kFirstLink, at, index);
  }

  // Out of a store whose chain has ended.
  std::optional<Link> leave(const Link& end) {
    if (end.value != 0) {
      report(Severity::warning, end.offset, end.holder,
             unlike(end.field, end.value, "0, as chains end"));
    }
    const Link behind = levels_.back().behind;
    levels_.pop_back();
    if (levels_.empty()) return std::nullopt;
    return behind;
  }

  void addMember(const hx::Entry& entry, int64_t at, std::size_t container, MemberKind kind) {
    members_.push_back({nameIn(entry), container, at, entry.firstLink, 0, kind, true});
  }

  // A nested store's previousLink goes stale when it is written again in another order, so it can't
  // be told what it should be.
  void checkMember(const hx::Entry& entry, int64_t at, std::size_t index) const {
    const InspectedMember& member = members_[index];
    if (isAllZero(entry)) return reportZeros(at, index);
    const int64_t parent = members_[member.container].entryOffset;
    expect(entry, kParentLink, parent, ", its store's", at, index);
    if (member.kind == MemberKind::item) {
      expect(entry, kPreviousLink, levels_.back().previous, ", its neighbour's", at, index);
    }
    checkName(entry, at, index);
    if (member.name.empty()) {
      report(Severity::warning, at + kName, index, "it has no name, so no listing shows it");
    } else if (member.name.find('/') != std::string::npos) {
      report(Severity::error, at + kName, index, "a name with \"/\" in it, so no path leads to it");
    }
  }

  void reportZeros(int64_t at, std::size_t index) const {
    members_[members_[index].container].isWhole = false;
    report(Severity::error, at, index,
           "the record is all zero: it and all that it led to are lost");
  }

  void expect(const hx::Entry& entry, const EntryField& field, int64_t expected,
              const char* meaning, int64_t at, std::size_t index) const {
    if (field.in(entry) == expected) return;
    // No writer ever gets a member's wrong: such a record is another one than the link was meant
    // for.
    const bool isHarmless = index == 0 && field.offset != kParentLink.offset;
    report(isHarmless ? Severity::warning : Severity::error, at + field.offset, index,
           unlike(field.name, field.in(entry), std::to_string(expected) + meaning));
  }

  void checkName(const hx::Entry& entry, int64_t at, std::size_t index) const {
    const int32_t length = hx::storedNameLength(entry.name);
    if (std::any_of(entry.name + length, std::end(entry.name),
                    [](uint8_t byte) { return byte != 0; })) {
      report(Severity::note, at + kName + length, index,
             "the rest of the name's field is not zero");
    }
  }

  // Only the newest can be opened by its name. The others are lost to every reader, even where the
  // module made them of names that were one when they had been cut.
  void reportSharedNames() const {
    std::vector<std::size_t> order(members_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    const auto keyOf = [&](std::size_t i) {
      return std::pair<std::size_t, std::string_view>(members_[i].container, members_[i].name);
    };
    if (order.empty()) return;
    const auto begin = order.begin() + 1;  // the top is its own container
    std::sort(begin, order.end(), [&](std::size_t a, std::size_t b) {
      return std::pair(keyOf(a), a) < std::pair(keyOf(b), b);
    });
    const auto isShared = [&](std::size_t a, std::size_t b) { return keyOf(a) == keyOf(b); };
    for (auto pair = std::adjacent_find(begin, order.end(), isShared); pair != order.end();
         pair = std::adjacent_find(pair + 1, order.end(), isShared)) {
      report(Severity::error, members_[*pair].entryOffset + kName, *pair,
             "another member of its store has the same name and is found instead");
    }
  }

  void report(Severity severity, int64_t offset, std::size_t member, std::string reason) const {
    ledger_.report(severity, offset, member, std::move(reason));
  }

  Ledger& ledger_;
  std::vector<InspectedMember>& members_;
  std::vector<Level> levels_;
};

}  // namespace

void walkDirectory(Ledger& ledger) {
  DirectoryWalk(ledger).walk();
}

bool isAllZero(const hx::Entry& entry) {
  constexpr hx::Entry kZeros{};
  return std::memcmp(&entry, &kZeros, sizeof(entry)) == 0;
}

std::string nameIn(const hx::Entry& entry) {
  return {reinterpret_cast<const char*>(entry.name),
          static_cast<std::size_t>(hx::storedNameLength(entry.name))};
}

}  // namespace hxcrate
