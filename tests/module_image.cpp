#include "tests/module_image.h"

#include <algorithm>

namespace hx::fake {

void putText(Bytes& image, size_t offset, const std::string& bytes) {
  std::memcpy(image.data() + offset, bytes.data(), bytes.size());
}

Header headerOf(int64_t pageSizeCode, int64_t directoryOffset) {
  Header header = {{}, pageSizeCode, directoryOffset};
  fillIdentity(&header.encodingId, false);
  return header;
}

Entry entryOf(int64_t parent, int64_t previous, int64_t next, int64_t first, const char* name) {
  Entry entry = {parent, previous, next, first, {}};
  std::memcpy(entry.name, name, std::strlen(name));
  return entry;
}

namespace {

void addChunks(const Bytes& image, int64_t first, std::vector<StoredRecord>& records) {
  for (int64_t at = first; at != 0; at = recordAt<DataChunk>(image, at).next) {
    ASSERT_LE(records.size(), image.size() / kChunkSize) << "the chunks go in circles";
    records.push_back({'c', at, 0, 0});
  }
}

void addMembers(const Bytes& image, int64_t store, std::vector<StoredRecord>& records) {
  int64_t previous = 0;
  int64_t previousStore = 0;
  for (int64_t link = recordAt<Entry>(image, store).firstLink; link != 0;) {
    const int64_t offset = std::abs(link);
    const auto entry = recordAt<Entry>(image, offset);
    records.push_back({link < 0 ? 's' : 'i', offset, store, link < 0 ? previousStore : previous});
    ASSERT_LE(records.size(), image.size() / kChunkSize) << "the links go in circles";
    if (link < 0) {
      addMembers(image, offset, records);
      previousStore = offset;
    } else {
      addChunks(image, entry.firstLink, records);
    }
    previous = offset;
    link = entry.next;
  }
}

struct Field {
  char kind;  // of StoredRecord; 'e' for both entries
  const char* name;
  size_t at;
  size_t width;
};

constexpr Field kFields[] = {{'h', "pageSizeCode", offsetof(Header, pageSizeCode), 8},
                             {'h', "directoryOffset", offsetof(Header, directoryOffset), 8},
                             {'e', "parentLink", offsetof(Entry, parentLink), 8},
                             {'e', "previousLink", offsetof(Entry, previousLink), 8},
                             {'e', "next", offsetof(Entry, next), 8},
                             {'e', "firstLink", offsetof(Entry, firstLink), 8},
                             {'c', "dataOffset", offsetof(DataChunk, dataOffset), 8},
                             {'c', "capacity", offsetof(DataChunk, capacity), 4},
                             {'c', "used", offsetof(DataChunk, used), 4},
                             {'c', "next", offsetof(DataChunk, next), 8}};

using UseField = std::function<void(const StoredRecord& record, const Field& field)>;

void forEachField(const Bytes& image, const UseField& use) {
  for (const StoredRecord& record : recordsOf(image)) {
    const bool isEntry = record.kind == 's' || record.kind == 'i';
    for (const Field& field : kFields) {
      if (field.kind == (isEntry ? 'e' : record.kind)) use(record, field);
    }
  }
}

std::vector<int64_t> nastyValues(const Bytes& image, int64_t itself) {
  const auto size = static_cast<int64_t>(image.size());
  std::vector<int64_t> values = {0,         1,         -1,        -2,         15,
                                 16,        17,        39,        4096,       size - 96,
                                 size - 24, size - 1,  size,      size + 1,   -size,
                                 96 - size, INT32_MAX, INT32_MIN, 1LL << 31,  INT64_MAX,
                                 INT64_MIN, itself,    -itself,   itself + 1, INT64_MAX - 95};
  for (const StoredRecord& other : recordsOf(image))
    values.insert(values.end(), {other.offset, -other.offset});
  return values;
}

using Extents = std::vector<std::pair<int64_t, int64_t>>;  // offsets and lengths

void expectApart(Extents extents, const Bytes& image) {
  std::sort(extents.begin(), extents.end());
  int64_t end = 0;
  for (const auto& [offset, length] : extents) {
    EXPECT_GE(offset, end) << "overlaps what is before it";
    end = offset + length;
  }
  EXPECT_LE(end, static_cast<int64_t>(image.size()));
}

void checkEntry(const Entry& entry, const StoredRecord& record) {
  EXPECT_EQ(entry.parentLink, record.parent);
  // A nested store's entry is not written again when another comes before it.
  EXPECT_TRUE(record.kind == 's' || entry.previousLink == record.previous);
}

void checkChunk(const DataChunk& chunk, int32_t pageSize, Extents& extents) {
  if (chunk.capacity == 0) {
    EXPECT_TRUE(chunk.dataOffset == 0 && chunk.used == 0 && chunk.next == 0);
    return;
  }
  EXPECT_EQ(chunk.capacity, pageSize);
  EXPECT_TRUE(chunk.used >= 0 && chunk.used <= pageSize);
  EXPECT_TRUE(chunk.next == 0 || chunk.used == pageSize) << "only a last page may have room";
  extents.emplace_back(chunk.dataOffset, chunk.capacity);
}

}  // namespace

std::vector<StoredRecord> recordsOf(const Bytes& image) {
  const int64_t top = recordAt<Header>(image, 0).directoryOffset;
  std::vector<StoredRecord> records = {{'h', 0, 0, 0}, {'s', top, 0, 0}};
  addMembers(image, top, records);
  return records;
}

std::string nameAt(const Bytes& image, int64_t entryOffset) {
  const auto entry = recordAt<Entry>(image, entryOffset);
  return {entry.name, entry.name + storedNameLength(entry.name)};
}

int64_t entryOffset(const Bytes& image, const std::string& name) {
  for (const auto& [kind, offset, parent, previous] : recordsOf(image)) {
    if ((kind == 's' || kind == 'i') && nameAt(image, offset) == name) return offset;
  }
  ADD_FAILURE() << "no entry " << name;
  return 0;
}

void checkImage(const Bytes& image) {
  Extents extents;
  const int32_t pageSize = pageSizeFromCode(recordAt<Header>(image, 0).pageSizeCode);
  for (const StoredRecord& record : recordsOf(image)) {
    const bool isEntry = record.kind == 's' || record.kind == 'i';
    extents.emplace_back(record.offset, isEntry              ? kEntrySize
                                        : record.kind == 'c' ? kChunkSize
                                                             : kHeaderSize);
    if (record.kind == 'c')
      checkChunk(recordAt<DataChunk>(image, record.offset), pageSize, extents);
    if (isEntry) checkEntry(recordAt<Entry>(image, record.offset), record);
  }
  expectApart(extents, image);
}

void forEachDamage(const Bytes& image, const std::function<void(const Bytes&)>& use) {
  forEachField(image, [&](const StoredRecord& record, const Field& field) {
    for (const int64_t value : nastyValues(image, record.offset)) {
      Bytes damaged = image;
      std::memcpy(damaged.data() + record.offset + field.at, &value, field.width);
      SCOPED_TRACE(testing::Message() << field.name << " at " << record.offset << " = " << value);
      use(damaged);
    }
  });
}

Bytes asBigEndian(const Bytes& image) {
  Bytes turned = image;
  forEachField(image, [&](const StoredRecord& record, const Field& field) {
    uint8_t* at = turned.data() + record.offset + field.at;
    std::reverse(at, at + field.width);
  });
  fillIdentity(turned.data(), true);
  return turned;
}

}  // namespace hx::fake
