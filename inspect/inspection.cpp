#include <algorithm>
#include <utility>

#include "hxcrate/inspect.hpp"
#include "inspect/chain_walk.h"
#include "inspect/directory_walk.h"
#include "inspect/lost_records.h"

namespace hxcrate {

namespace {

constexpr std::string_view kKindNames[kByteKinds] = {"header", "entries", "chunks",
                                                     "data",   "slack",   "unreachable"};

void tellDirectory(const Ledger& ledger, const PageWalkOptions& options) {
  if (!options.onExtent) return;
  options.onExtent({ByteKind::header, 0, hx::kHeaderSize, kNoMember});
  for (std::size_t i = 0; i < ledger.members.size(); ++i)
    options.onExtent({ByteKind::entry, ledger.members[i].entryOffset, hx::kEntrySize, i});
}

// Each chain of pages becomes an item without an ENTRY, called by where it begins.
void adoptLostChains(Ledger& ledger, ChainWalk& chains) {
  for (const int64_t head : findLostChains(ledger)) {
    // It may lie in the bytes of a chain before it.
    const ByteRange record{head, head + hx::kChunkSize};
    if (ledger.claimed.findOwned(record).range.length() > 0) continue;
    const std::size_t lost = ledger.enterLostStore();
    const std::size_t index = ledger.members.size();
    ledger.members.push_back(
        {"item-at-" + std::to_string(head), lost, -1, head, 0, MemberKind::item, true});
    chains.walkItem(index);
    ledger.report(Severity::error, head, index,
                  "pages with " + std::to_string(ledger.members[index].size) +
                      " bytes of an item of which the record is gone");
  }
}

// Nothing may own the bytes behind the pages, so it is one finding for all of them.
void tellUnreachable(const Ledger& ledger, const PageWalkOptions& options) {
  const std::vector<ByteRange> free = ledger.claimed.listFree({0, ledger.reader.length()});
  int64_t sum = 0;
  for (const ByteRange& range : free) {
    sum += range.length();
    if (options.onExtent) {
      options.onExtent({ByteKind::unreachable, range.start, range.length(), kNoMember});
    }
  }
  if (free.empty()) return;
  ledger.report(Severity::note, free.front().start, kNoMember,
                std::to_string(sum) + " bytes belong to nothing, from here on in " +
                    std::to_string(free.size()) + (free.size() == 1 ? " place" : " places"));
}

}  // namespace

std::size_t ByteView::read(std::int64_t offset, std::span<std::byte> to) const {
  if (offset < 0 || offset >= length()) return 0;
  const std::span<const std::byte> from = bytes_.subspan(static_cast<std::size_t>(offset));
  const std::size_t count = std::min(from.size(), to.size());
  std::copy_n(from.begin(), count, to.begin());
  return count;
}

std::string_view nameOf(ByteKind kind) {
  return kKindNames[static_cast<std::size_t>(kind)];
}

struct Inspection::Parts {
  Ledger ledger;
};

Inspection::Inspection(const ByteSource& source, std::function<void(const Finding&)> onFinding,
                       const HeaderOverride& header)
    : parts_(new Parts{Ledger(source, std::move(onFinding), header)}) {
  walkDirectory(parts_->ledger);
}

Inspection::~Inspection() = default;

void Inspection::walkPages(const PageWalkOptions& options) {
  Ledger& ledger = parts_->ledger;
  tellDirectory(ledger, options);
  ChainWalk chains(ledger, options);
  const auto walkFrom = [&](std::size_t first) {
    for (std::size_t i = first; i < ledger.members.size(); ++i) {
      if (ledger.members[i].kind == MemberKind::item) chains.walkItem(i);
    }
  };
  walkFrom(0);
  chains.claimSlack();
  if (options.adoptMembers) {
    const std::size_t first = ledger.members.size();
    adoptLostMembers(ledger, options);
    walkFrom(first);
    chains.claimSlack();
    adoptLostChains(ledger, chains);
    chains.claimSlack();
  }
  chains.reportStrayBytes();
  tellUnreachable(ledger, options);
}

const std::vector<InspectedMember>& Inspection::members() const {
  return parts_->ledger.members;
}

std::string Inspection::pathOf(std::size_t member) const {
  return parts_->ledger.pathOf(member);
}

std::int32_t Inspection::pageSize() const {
  return parts_->ledger.reader.pageSize();
}

std::string Inspection::encoding() const {
  return std::string(textOf(parts_->ledger.reader.header().encodingId));
}

// A store comes before its members.
std::size_t Inspection::depth() const {
  std::vector<std::size_t> depths;
  for (const InspectedMember& member : members()) {
    const bool isNested = member.kind == MemberKind::store && !depths.empty();
    depths.push_back(depths.empty() ? 1 : depths[member.container] + (isNested ? 1 : 0));
  }
  return depths.empty() ? 0 : *std::max_element(depths.begin(), depths.end());
}

}  // namespace hxcrate
