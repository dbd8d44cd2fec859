#include <algorithm>
#include <unordered_map>
#include <utility>

#include "hxcrate/inspect.hpp"
#include "inspect/record_reader.h"
#include "inspect/refusal.h"

namespace hxcrate {

namespace {

constexpr std::size_t kPieceSize = 1 << 20;

// A part of the new file that grows from its start on.
class Region {
 public:
  Region(int64_t start, const PutBytes& put) : end_(start), put_(put) {
    piece_.reserve(kPieceSize);
  }

  int64_t end() const { return end_; }

  // Room for bytes behind it, zero, until the next call.
  std::span<std::byte> extend(std::size_t count) {
    if (piece_.size() + count > kPieceSize) flush();
    const std::size_t start = piece_.size();
    piece_.resize(start + count);
    end_ += static_cast<int64_t>(count);
    return std::span(piece_).subspan(start);
  }

  void flush() {
    if (!piece_.empty()) put_(end_ - std::ssize(piece_), piece_);
    piece_.clear();
  }

 private:
  int64_t end_;
  std::vector<std::byte> piece_;  // before the end, not put yet
  const PutBytes& put_;
};

// Goes through the members as the directory does, and with each through its pages. The records of
// items without a page come last: so the n-th record's page is the n-th page.
class Arranger {
 public:
  Arranger(const ByteSource& source, std::string_view encodingId, const PutBytes& put)
      : reader_(source, {}),
        put_(put),
        inspection_(source, refuseDamage(source)),
        encodingId_(encodingId.empty() ? inspection_.encoding() : encodingId),
        isTurned_(isTurned(encodingId_).value()) {
    int64_t records = 0;
    int64_t empty = 0;
    inspection_.walkPages({.onExtent =
                               [&](const Extent& extent) {
                                 if (extent.kind == ByteKind::chunk) ++records;
                               },
                           .onItemEnd =
                               [&](std::size_t item) {
                                 if (isEmpty(members()[item])) ++empty;
                               }});
    chunks_ = hx::kHeaderSize + std::ssize(members()) * hx::kEntrySize;
    emptyChunks_ = chunks_ + (records - empty) * hx::kChunkSize;
    pages_ = emptyChunks_ + empty * hx::kChunkSize;
  }

  void run() {
    hx::Header header = reader_.header();
    setIdentity(header.encodingId, encodingId_);
    if (header.directoryOffset != 0) header.directoryOffset = hx::kHeaderSize;
    Region front(0, put_);
    write(front, header);
    writeMembers(front);
    front.flush();
  }

 private:
  const std::vector<InspectedMember>& members() const { return inspection_.members(); }

  void writeMembers(Region& entries) {
    for (const InspectedMember& member : members())
      places_.emplace(member.entryOffset, hx::kHeaderSize + std::ssize(places_) * hx::kEntrySize);
    Region chunks(chunks_, put_);
    Region emptyChunks(emptyChunks_, put_);
    Region pages(pages_, put_);
    for (const InspectedMember& member : members()) {
      const bool isItem = member.kind == MemberKind::item;
      hx::Entry entry = required(reader_.readEntry(member.entryOffset), member.entryOffset);
      for (int64_t* link : {&entry.parentLink, &entry.previousLink, &entry.next})
        *link = moved(*link);
      Region& records = isItem && isEmpty(member) ? emptyChunks : chunks;
      entry.firstLink = isItem ? records.end() : moved(entry.firstLink);
      write(entries, entry);
      if (isItem) movePages(member.firstLink, records, pages);
    }
    for (Region* region : {&chunks, &emptyChunks, &pages})
      region->flush();
  }

  // It has a record and no page.
  bool isEmpty(const InspectedMember& item) const {
    return required(reader_.readChunk(item.firstLink), item.firstLink).capacity == 0;
  }

  // What leads nowhere, as only a stale link that no reader uses may, leads to nothing then.
  int64_t moved(int64_t link) const {
    const auto place = places_.find(hx::targetOf(link));
    if (hx::endsChain(link) || place == places_.end()) return 0;
    return hx::leadsToItem(link) ? place->second : -place->second;
  }

  // No more records than were counted, should the file have changed since.
  void movePages(int64_t record, Region& chunks, Region& pages) const {
    do {
      if (chunks.end() >= pages_) refuse(record);
      hx::DataChunk chunk = required(reader_.readChunk(record), record);
      record = chunk.next;
      if (chunk.next != 0) chunk.next = chunks.end() + hx::kChunkSize;
      if (chunk.capacity != 0) movePage(chunk, pages);
      write(chunks, chunk);
    } while (record != 0);
  }

  void movePage(hx::DataChunk& chunk, Region& pages) const {
    const int64_t from = std::exchange(chunk.dataOffset, pages.end());
    if (chunk.capacity != reader_.pageSize() || chunk.used < 0) refuse(from);
    for (int64_t done = 0; done < chunk.capacity;) {
      const auto room =
          pages.extend(std::min(kPieceSize, static_cast<std::size_t>(chunk.capacity - done)));
      const auto used = std::clamp<int64_t>(chunk.used - done, 0, std::ssize(room));
      if (!reader_.readBytes(from + done, room.first(static_cast<std::size_t>(used)))) refuse(from);
      done += std::ssize(room);
    }
  }

  template <typename Record>
  void write(Region& region, Record record) const {
    if (isTurned_) turn(record);
    std::ranges::copy(std::as_bytes(std::span(&record, 1)), region.extend(sizeof(record)).begin());
  }

  template <typename Record>
  Record required(const std::optional<Record>& record, int64_t offset) const {
    if (!record) refuse(offset);
    return *record;
  }

  [[noreturn]] void refuse(int64_t offset) const { failReading(reader_.source(), offset); }

  const RecordReader reader_;
  const PutBytes& put_;
  Inspection inspection_;
  const std::string encodingId_;
  const bool isTurned_;
  int64_t chunks_ = 0;                           // where the records of pages begin,
  int64_t emptyChunks_ = 0;                      // those of items without a page,
  int64_t pages_ = 0;                            // and the pages
  std::unordered_map<int64_t, int64_t> places_;  // of entries, by those they had
};

}  // namespace

void arrangeForReading(const ByteSource& source, std::string_view encodingId, const PutBytes& put) {
  if (!encodingId.empty()) requireKnown(encodingId);
  Arranger(source, encodingId, put).run();
}

}  // namespace hxcrate
