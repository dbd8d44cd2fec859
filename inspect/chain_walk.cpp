#include "inspect/chain_walk.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "inspect/page_record.h"

namespace hxcrate {

namespace {

constexpr int64_t kDataOffset = offsetof(hx::DataChunk, dataOffset);
constexpr int64_t kCapacity = offsetof(hx::DataChunk, capacity);
constexpr int64_t kUsed = offsetof(hx::DataChunk, used);
constexpr int64_t kNext = offsetof(hx::DataChunk, next);

std::string say(const char* field, int64_t found) {
  return std::string(field) + " is " + std::to_string(found);
}

}  // namespace

void ChainWalk::walkItem(std::size_t item) {
  InspectedMember& member = ledger_.members[item];
  item_ = item;
  pageIndex_ = 0;
  size_ = 0;
  member.isWhole = false;
  std::optional<Link> link =
      Link{member.firstLink, "firstLink",
           member.entryOffset + static_cast<int64_t>(offsetof(hx::Entry, firstLink)), item};
  while (link && (link->value != 0 || pageIndex_ == 0)) {
    link = walkPage(*link);
    ++pageIndex_;
  }
  member.isWhole = link.has_value();
  member.size = size_;
  if (options_.onItemEnd) options_.onItemEnd(item);
}

// The link to the page behind it; nothing where the chain is broken.
std::optional<Link> ChainWalk::walkPage(const Link& link) {
  const std::optional<hx::DataChunk> chunk = ledger_.takeChunk(link, item_);
  if (!chunk) return std::nullopt;
  const int64_t at = link.value;
  tell(ByteKind::chunk, {at, at + hx::kChunkSize}, item_);
  const Link next{chunk->next, "next", at + kNext, item_};
  if (!checkRecord(*chunk, at)) return std::nullopt;
  if (chunk->capacity == 0) {
    if (options_.readSlack) keepBehindEmpty(at + hx::kChunkSize);
    return next;
  }
  const bool isPlaced = checkPlace(*chunk, at);
  if (!takeBytes(*chunk, at) || !isPlaced) return std::nullopt;
  keepSlack(*chunk);
  return next;
}

bool ChainWalk::checkRecord(const hx::DataChunk& chunk, int64_t at) const {
  const auto whole = [this] {
    return std::to_string(ledger_.reader.pageSize()) + ", the page size";
  };
  switch (findFault(chunk, ledger_.reader)) {
    case PageFault::notAllZero:
      return reportDamage(at + kCapacity, "capacity is 0, but the record is not all zero");
    case PageFault::pageSizeUnknown:
      return reportDamage(at, "a page can't be read, its size is not known");
    case PageFault::capacity:
      return reportDamage(at + kCapacity, say("capacity", chunk.capacity) + ", not " + whole());
    case PageFault::used:
      return reportDamage(at + kUsed, say("used", chunk.used) + ", not 0 to " + whole());
    case PageFault::notFull:
      return reportDamage(at + kUsed, say("used", chunk.used) + ", not " + whole() +
                                          ", in a page that others follow");
    case PageFault::none:
    case PageFault::place:
    case PageFault::next:
      return checkEnd(chunk, at);  // places are checked when they are gone to
  }
  return false;
}

bool ChainWalk::checkEnd(const hx::DataChunk& chunk, int64_t at) const {
  if (chunk.capacity == 0 && pageIndex_ > 0) {
    return reportDamage(at, "the record is all zero, which only that of an item without pages is");
  }
  if (chunk.capacity != 0 && chunk.next == 0 && chunk.used == chunk.capacity) {
    ledger_.report(Severity::warning, at + kNext, item_,
                   "next is 0, but a full page is followed by another");
  }
  if (size_ + chunk.used <= INT32_MAX) return true;
  return reportDamage(at + kUsed, "the item has more than 2147483647 bytes");
}

// Whole pages are read but the first, of which the used bytes are. The unused rest of that one may
// be cut off, and then an update puts others' bytes where it would be.
bool ChainWalk::checkPlace(const hx::DataChunk& chunk, int64_t at) const {
  if (ledger_.reader.holds(chunk.dataOffset, chunk.capacity)) return true;
  const std::string end = ", and " + std::to_string(chunk.capacity) +
                          " bytes from there are not in the file of " +
                          std::to_string(ledger_.reader.length());
  const std::string reason = say("dataOffset", chunk.dataOffset) + end;
  if (pageIndex_ > 0 || !ledger_.reader.holds(chunk.dataOffset, chunk.used)) {
    return reportDamage(at + kDataOffset, reason);
  }
  ledger_.report(Severity::error, at + kDataOffset, item_,
                 reason + ": all of the item is, but appending to it would destroy others");
  return true;
}

// As many of the bytes as are in the file and nobody else's.
bool ChainWalk::takeBytes(const hx::DataChunk& chunk, int64_t at) {
  if (!ledger_.reader.holds(chunk.dataOffset, 0)) return false;
  const int64_t room = ledger_.reader.length() - chunk.dataOffset;
  const ByteRange wanted{chunk.dataOffset, chunk.dataOffset + std::min<int64_t>(chunk.used, room)};
  const OwnedRange owned = ledger_.claimed.findOwned(wanted);
  const ByteRange bytes{wanted.start, owned.range.start};
  if (bytes.length() > 0) {
    ledger_.claimed.claim(bytes, item_);
    tell(ByteKind::data, bytes, item_);
    size_ += bytes.length();
  }
  if (bytes == wanted) return true;
  return reportDamage(at + kDataOffset, say("dataOffset", chunk.dataOffset) + ", but bytes " +
                                            std::to_string(owned.range.start) + " to " +
                                            std::to_string(owned.range.end - 1) +
                                            " there belong to " +
                                            ledger_.describeOwner(owned.owner));
}

void ChainWalk::keepSlack(const hx::DataChunk& chunk) {
  const int64_t start = chunk.dataOffset + chunk.used;
  const int64_t end = std::min(chunk.dataOffset + chunk.capacity, ledger_.reader.length());
  if (start < end) slack_.push_back({{start, end}, item_});
}

void ChainWalk::keepBehindEmpty(int64_t start) {
  if (start < ledger_.reader.length()) {
    behindEmpty_.push_back({{start, ledger_.reader.length()}, item_});
  }
}

void ChainWalk::claimSlack() {
  for (const Slack& slack : std::exchange(slack_, {}))
    claimSlackOf(slack);
}

void ChainWalk::claimSlackOf(const Slack& slack) {
  const OwnedRange owned = ledger_.claimed.findOwned(slack.range);
  if (owned.range.length() > 0) {
    ledger_.report(Severity::error, owned.range.start, slack.item,
                   "the rest of its last page belongs to " + ledger_.describeOwner(owned.owner) +
                       " too: appending to it would destroy that");
  }
  for (const ByteRange& gap : settled_.listFree(slack.range)) {
    for (const ByteRange& range : ledger_.claimed.listFree(gap)) {
      ledger_.claimed.claim(range, slack.item);
      tell(ByteKind::slack, range, slack.item);
      if (options_.readSlack) lookForBytes(range);
    }
    settled_.claim(gap, 0);
  }
}

void ChainWalk::lookForBytes(ByteRange range) {
  constexpr std::array<std::byte, 4096> kZeros{};
  constexpr int64_t kLong = 1 << 16;  // from here on a hole is worth a question
  std::array<std::byte, kZeros.size()> buffer;
  if (range.length() > kLong) range.start = ledger_.reader.source().findData(range.start);
  for (int64_t at = range.start; at < range.end;) {
    const auto count = std::min<int64_t>(range.end - at, buffer.size());
    const auto bytes = std::span(buffer).first(static_cast<std::size_t>(count));
    at += count;
    if (!ledger_.reader.readBytes(at - count, bytes)) return;
    if (std::memcmp(bytes.data(), kZeros.data(), bytes.size()) == 0) continue;
    const auto isStray = [](std::byte byte) { return byte != std::byte{0}; };
    const auto first = std::find_if(bytes.begin(), bytes.end(), isStray);
    if (first != bytes.end() && strayBytes_ == 0)
      firstStray_ = at - count + (first - bytes.begin());
    strayBytes_ += std::count_if(first, bytes.end(), isStray);
  }
}

// An item whose record was zeroed looks like one that was never written to, but its page lies
// there, be it zero as well. Behind an empty item of a blob 24 bytes more belong to nobody.
void ChainWalk::checkBehindEmpty(const Slack& empty) {
  const int64_t start = empty.range.start;
  const int64_t pageSize = ledger_.reader.pageSize();
  const ByteRange free{start, ledger_.claimed.findOwned(empty.range).range.start};
  const bool isRoomOfPages = (free.length() + hx::kChunkSize) % (pageSize + hx::kChunkSize) == 0;
  strayBytes_ = 0;
  lookForBytes({start, std::min(free.end, start + pageSize)});
  const bool isRoom = free.length() > 0 && isRoomOfPages;
  if (strayBytes_ == 0 && !isRoom && !lacksPageInRow(start - hx::kChunkSize)) return;
  ledger_.report(Severity::error, start - hx::kChunkSize, empty.item,
                 std::string("its record is all zero, as an empty item's is, but ") +
                     (strayBytes_ > 0 ? "bytes that belong to nothing lie behind it"
                      : isRoom        ? "a page has room behind it"
                                      : "a page beside its neighbours' belongs to nothing"));
}

// Where all records lie in a row and all pages in another one, as in a file for reading.
bool ChainWalk::lacksPageInRow(int64_t record) const {
  const int64_t pageSize = ledger_.reader.pageSize();
  return std::ranges::any_of(std::array<int64_t, 2>{-1, 1}, [&](int64_t side) {
    const int64_t neighbour = record + side * hx::kChunkSize;
    if (!ledger_.reader.holds(neighbour, hx::kChunkSize)) return false;
    const std::optional<hx::DataChunk> chunk = ledger_.reader.readChunk(neighbour);
    if (!chunk || chunk->capacity == 0 || !isSound(*chunk, ledger_.reader)) return false;
    const int64_t page = chunk->dataOffset - side * pageSize;
    return ledger_.reader.holds(page, pageSize) &&
           ledger_.claimed.findOwned({page, page + pageSize}).range.length() == 0;
  });
}

void ChainWalk::reportStrayBytes() {
  if (strayBytes_ > 0) {
    ledger_.report(Severity::note, firstStray_, kNoMember,
                   "here begin " + std::to_string(strayBytes_) +
                       " bytes behind the ends of items that are not zero");
  }
  for (const Slack& empty : behindEmpty_)
    checkBehindEmpty(empty);
}

void ChainWalk::tell(ByteKind kind, ByteRange range, std::size_t item) const {
  if (options_.onExtent) options_.onExtent({kind, range.start, range.length(), item});
}

bool ChainWalk::reportDamage(int64_t offset, std::string reason) const {
  ledger_.report(Severity::error, offset, item_, std::move(reason));
  return false;
}

}  // namespace hxcrate
