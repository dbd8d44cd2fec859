#include "tests/module_image.h"

#include <algorithm>
#include <hxcrate/inspect.hpp>

namespace hx::fake {

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

Bytes deepImage(int64_t levels, const char* name, bool twice) {
  Bytes image(static_cast<size_t>(kHeaderSize + levels * kEntrySize));
  putRecord(image, 0, headerOf(0, kHeaderSize));
  for (int64_t level = 0; level < levels; ++level) {
    const int64_t offset = kHeaderSize + level * kEntrySize;
    const int64_t below = level + 1 < levels ? -offset - kEntrySize : 0;
    const int64_t next = twice && level > 0 ? below : 0;
    putRecord(image, offset, entryOf(level == 0 ? 0 : offset - kEntrySize, 0, next, below, name));
  }
  return image;
}

namespace {

struct Field {
  char kind;  // of StoredRecord
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

void forEachField(const std::vector<StoredRecord>& records, const UseField& use) {
  for (const StoredRecord& record : records) {
    for (const Field& field : kFields) {
      if (field.kind == record.kind) use(record, field);
    }
  }
}

std::vector<int64_t> nastyValues(const std::vector<StoredRecord>& records, size_t length,
                                 int64_t itself) {
  const auto size = static_cast<int64_t>(length);
  std::vector<int64_t> values = {0,         1,         -1,        -2,         15,
                                 16,        17,        39,        4096,       size - 96,
                                 size - 24, size - 1,  size,      size + 1,   -size,
                                 96 - size, INT32_MAX, INT32_MIN, 1LL << 31,  INT64_MAX,
                                 INT64_MIN, itself,    -itself,   itself + 1, INT64_MAX - 95};
  for (const StoredRecord& other : records)
    values.insert(values.end(), {other.offset, -other.offset});
  return values;
}

// The fake machine's records are those of this one.
const hxcrate::HeaderOverride kNative = {"hxmok1/le/utf-8"};

hxcrate::ByteView viewOf(const Bytes& image) {
  return {std::as_bytes(std::span(image)), "image"};
}

}  // namespace

std::vector<StoredRecord> recordsOf(const Bytes& image) {
  const hxcrate::ByteView view = viewOf(image);
  hxcrate::Inspection inspection(view, {}, kNative);
  std::vector<StoredRecord> records;
  inspection.walkPages({.onExtent = [&](const hxcrate::Extent& extent) {
    if (extent.kind > hxcrate::ByteKind::chunk) return;
    records.push_back({"hec"[static_cast<size_t>(extent.kind)], extent.offset});
  }});
  return records;
}

std::string nameAt(const Bytes& image, int64_t entryOffset) {
  const auto entry = recordAt<Entry>(image, entryOffset);
  return {entry.name, entry.name + storedNameLength(entry.name)};
}

int64_t entryOffset(const Bytes& image, const std::string& name) {
  for (const auto& [kind, offset] : recordsOf(image)) {
    if (kind == 'e' && nameAt(image, offset) == name) return offset;
  }
  ADD_FAILURE() << "no entry " << name;
  return 0;
}

void checkImage(const Bytes& image) {
  const hxcrate::ByteView view = viewOf(image);
  const auto complain = [](const hxcrate::Finding& finding) {
    const bool isHarmless = finding.severity != hxcrate::Severity::error &&
                            finding.reason.find("previousLink") == std::string::npos;
    // A story cuts the unused rest of a page off.
    const bool isCut = finding.reason.ends_with("appending to it would destroy others");
    EXPECT_TRUE(isHarmless || isCut)
        << finding.offset << " " << finding.place << ": " << finding.reason;
  };
  hxcrate::Inspection(view, complain, kNative).walkPages({.readSlack = true, .adoptMembers = true});
}

namespace {

int64_t recordNamed(const Bytes& image, const std::string& name) {
  if (name == "header") return 0;
  const size_t slash = name.find('/');
  int64_t at = entryOffset(image, name.substr(0, slash));
  if (slash == std::string::npos) return at;
  at = recordAt<Entry>(image, at).firstLink;
  for (int page = std::stoi(name.substr(slash + 1)); page > 0; --page)
    at = recordAt<DataChunk>(image, at).next;
  return at;
}

}  // namespace

void setNamedField(Bytes& image, const std::string& field, const std::string& value) {
  const size_t dot = field.find('.');
  const bool isPage = field.find('/') != std::string::npos;
  const int64_t record = recordNamed(image, field.substr(0, dot));
  const int64_t number = value[0] == '@' ? recordNamed(image, value.substr(1)) : std::stoll(value);
  for (const auto& [kind, name, at, width] : kFields) {
    if (name != field.substr(dot + 1) || isPage != (kind == 'c')) continue;
    std::memcpy(image.data() + record + at, &number, width);
    return;
  }
  ADD_FAILURE() << "no field " << field;
}

void forEachDamage(const Bytes& image, const std::function<void(const Bytes&)>& use) {
  const std::vector<StoredRecord> records = recordsOf(image);
  forEachField(records, [&](const StoredRecord& record, const Field& field) {
    for (const int64_t value : nastyValues(records, image.size(), record.offset)) {
      Bytes damaged = image;
      std::memcpy(damaged.data() + record.offset + field.at, &value, field.width);
      SCOPED_TRACE(testing::Message() << field.name << " at " << record.offset << " = " << value);
      use(damaged);
    }
  });
}

void damageField(Bytes& image, const std::vector<StoredRecord>& records, size_t record,
                 size_t field, size_t value) {
  const StoredRecord& damaged = records[record % records.size()];
  std::vector<Field> fields;
  forEachField({damaged}, [&](const StoredRecord&, const Field& its) { fields.push_back(its); });
  const Field& chosen = fields[field % fields.size()];
  const std::vector<int64_t> values = nastyValues(records, image.size(), damaged.offset);
  std::memcpy(image.data() + damaged.offset + chosen.at, &values[value % values.size()],
              chosen.width);
}

Bytes asBigEndian(const Bytes& image) {
  Bytes turned = image;
  forEachField(recordsOf(image), [&](const StoredRecord& record, const Field& field) {
    uint8_t* at = turned.data() + record.offset + field.at;
    std::reverse(at, at + field.width);
  });
  fillIdentity(turned.data(), true);
  return turned;
}

}  // namespace hx::fake
