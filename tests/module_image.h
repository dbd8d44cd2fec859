// Images of store files and blobs in the tests: their records by name, their rules, their damage.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "file/format.h"
#include "tests/fake_host.h"

namespace hx::fake {

// A record of a file or a blob.
struct StoredRecord {
  char kind;  // 'h'eader, 'e'ntry, 'c'hunk
  int64_t offset;
};

template <typename Record>
Record recordAt(const Bytes& image, int64_t offset) {
  Record record = {};
  const auto at = static_cast<size_t>(offset);
  EXPECT_TRUE(offset >= 0 && at + sizeof(record) <= image.size()) << "a record at " << offset;
  if (offset >= 0 && at + sizeof(record) <= image.size())
    std::memcpy(&record, image.data() + at, sizeof(record));
  return record;
}

template <typename Record>
void putRecord(Bytes& image, int64_t offset, const Record& record) {
  std::memcpy(image.data() + offset, &record, sizeof(record));
}

template <typename Record, typename Field>
void setField(Bytes& image, int64_t offset, Field Record::*field, Field value) {
  auto record = recordAt<Record>(image, offset);
  record.*field = value;
  putRecord(image, offset, record);
}

Header headerOf(int64_t pageSizeCode, int64_t directoryOffset);
Entry entryOf(int64_t parent, int64_t previous, int64_t next, int64_t first, const char* name);

// Stores of that name within stores; with `twice`, each leads to the next one two ways.
Bytes deepImage(int64_t levels, const char* name, bool twice = false);

// All records of a sound image, each store's members behind it; the pages come last.
std::vector<StoredRecord> recordsOf(const Bytes& image);
std::string nameAt(const Bytes& image, int64_t entryOffset);
// Where the ENTRY of a name stands in a sound image.
int64_t entryOffset(const Bytes& image, const std::string& name);
// Complains about what breaks the format, as `hxcrate check` does.
void checkImage(const Bytes& image);
// Every field of every record of an image, set to every value that could lead astray.
void forEachDamage(const Bytes& image, const std::function<void(const Bytes&)>& use);
// Sets one of those fields to one of those values, as the numbers say.
void damageField(Bytes& image, const std::vector<StoredRecord>& records, size_t record,
                 size_t field, size_t value);
// Sets a field of a record that is named by the member and the field: "header.pageSizeCode",
// "name.next" of an ENTRY, "name/0.used" of an item's first page. The value is a number, or "@" and
// where such a record is: "@name".
void setNamedField(Bytes& image, const std::string& field, const std::string& value);
// The same image from the other machine.
Bytes asBigEndian(const Bytes& image);

}  // namespace hx::fake
