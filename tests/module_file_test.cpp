// Store files: their exact bytes, loading them, and what damaged or foreign ones do.
#include <gtest/gtest.h>

#include "file/record_maps.h"
#include "store/page_size.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

class FileTest : public ModuleTest {
 protected:
  // A closed store file with one item.
  const Bytes& makeFile(const Path& path, const std::string& bytes) {
    Store* store = open(path, kMake);
    put(store, U"a", bytes);
    close(store);
    return host.file(path);
  }
};

template <typename Value>
Bytes bytesOf(const Value& value) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
  return {bytes, bytes + sizeof(value)};
}

// The top store's members in the order of their chain: "y e/ ".
std::string chainOf(const Bytes& image) {
  std::string names;
  for (const auto& [kind, offset, parent, previous] : recordsOf(image)) {
    if (parent != 0) names += nameAt(image, offset) + (kind == 's' ? "/ " : " ");
  }
  return names;
}

TEST(Format, MapsAndCodesByteForByte) {
  EXPECT_EQ(bytesOf(HEADER_map),
            (Bytes{0, 0, 0, 9, 24, 0, 64, 6, 1, 0, 0, 25, 1, 0, 0, 25, 0, 0, 0, 10, 0, 0, 0, 0}));
  EXPECT_EQ(bytesOf(ENTRY_map), (Bytes{0, 0, 0, 9,  1,  0, 0,  25, 1, 0, 0, 25, 1, 0, 0, 25,
                                       1, 0, 0, 25, 64, 0, 64, 6,  0, 0, 0, 10, 0, 0, 0, 0}));
  EXPECT_EQ(bytesOf(DATACHUNK_map), (Bytes{0, 0,  0, 9, 1, 0,  0, 25, 1, 0,  0, 27, 1, 0,
                                           0, 27, 1, 0, 0, 25, 0, 0,  0, 10, 0, 0,  0, 0}));
  EXPECT_EQ(bytesOf(pageSizeCodeOf(8192)), (Bytes{0, 0xe0, 255, 255, 255, 255, 255, 255}));
}

TEST_F(FileTest, TenBytesByteForByte) {
  Bytes wanted(4352);
  putRecord(wanted, 0, headerOf(0, 4160));
  putRecord(wanted, 40, DataChunk{64, 4096, 10, 0});
  putText(wanted, 64, "0123456789");
  putRecord(wanted, 4160, entryOf(0, 0, 0, 4256, "x.st"));
  putRecord(wanted, 4256, entryOf(4160, 0, 0, 40, "a"));
  for (const auto* path : {U"/d/x.st", U"c:x.st", U"d\\x.st", U"x.st"})
    EXPECT_EQ(makeFile(path, "0123456789"), wanted);
  put(open(U"x.st", kUpdate), U"a", "abcde");
  closeAll();
  putRecord(wanted, 40, DataChunk{64, 4096, 15, 0});
  putText(wanted, 74, "abcde");
  EXPECT_EQ(host.file(U"x.st"), wanted) << "appending rewrites in place";
}

TEST_F(FileTest, FiveThousandBytesByteForByte) {
  Bytes wanted(8472);
  putRecord(wanted, 0, headerOf(0, 8280));
  putRecord(wanted, 40, DataChunk{64, 4096, 4096, 4160});
  putText(wanted, 64, pattern(5000).substr(0, 4096));
  putRecord(wanted, 4160, DataChunk{4184, 4096, 904, 0});
  putText(wanted, 4184, pattern(5000).substr(4096));
  putRecord(wanted, 8280, entryOf(0, 0, 0, 8376, "x.st"));
  putRecord(wanted, 8376, entryOf(8280, 0, 0, 40, "a"));
  EXPECT_EQ(makeFile(U"x.st", pattern(5000)), wanted);
}

// Every store of the tree, each with items before and behind nested stores.
TEST_F(FileTest, LinksOfADirectory) {
  Store* store = open(U"x.st", kMake);
  for (Store* parent : {store, openIn(store, U"n", kMake), openIn(store, U"n/deep", kMake)}) {
    for (const char32_t* name : {U"a", U"b", U"k", U"z", U""})
      put(parent, name, pattern(100));
    openIn(parent, U"m", kMake);
    openIn(parent, U"last", kMake);
  }
  close(store);
  const Bytes& image = host.file(U"x.st");
  checkImage(image);
  for (const StoredRecord& record : recordsOf(image)) {
    if (record.kind != 's') continue;
    EXPECT_EQ(recordAt<Entry>(image, record.offset).previousLink, record.previous);
  }
}

TEST_F(FileTest, MembersOfABucketTurnRoundWithEveryLoad) {
  Store* store = open(U"x.st", kMake);
  openIn(store, U"e", kMake);
  put(store, U"y", "why");
  close(store);
  const size_t size = host.file(U"x.st").size();
  EXPECT_EQ(chainOf(host.file(U"x.st")), "y e/ ");
  for (const char* chain : {"e/ y ", "y e/ ", "e/ y "}) {
    World other(host.disk());
    other.close(other.open(U"x.st", kUpdate));
    host.setDisk(other.host.disk());
    EXPECT_EQ(chainOf(host.file(U"x.st")), chain);
    EXPECT_EQ(host.file(U"x.st").size(), size);
    checkImage(host.file(U"x.st"));
    EXPECT_EQ(reloaded(U"x.st"), (Contents{{U"e/", ""}, {U"y", "why"}}));
  }
}

TEST_F(FileTest, NamesAreCutToTheFormat) {
  const Path long64(64, U'q');
  Store* store = open(U"x.st", kMake);
  put(store, long64, "64");
  put(store, U"\u0141", "A");    // low byte 'A'
  put(store, U"b\u0100c", "b");  // low byte 0 ends the name
  put(store, U"\u0080\u00ff", "hi");
  put(openIn(store, U"twin", kMake), long64 + U"1", "one");
  put(store, U"twin/" + long64 + U"2", "two");
  closeAll();
  Contents all = reloaded(U"x.st");
  EXPECT_TRUE(all[long64] == "64" && all[U"A"] == "A" && all[U"b"] == "b");
  EXPECT_EQ(all[U"\u0080\u00ff"], "hi");
  World other(host.disk());
  other.close(other.open(U"x.st", kUpdate));
  EXPECT_EQ(recordsOf(other.host.file(U"x.st")).size(), recordsOf(host.file(U"x.st")).size())
      << "both twins stay in the file";
}

TEST_F(FileTest, AHeaderWithoutADirectoryIsAnEmptyStore) {
  host.file(U"x.st") = bytesOf(headerOf(-512, 0));
  Store* store = open(U"x.st", kRead);
  EXPECT_TRUE(status == kOk && list(store).empty());
  close(store);
  EXPECT_EQ(open(U"x.st", kUpdate), store) << "registered like any other";
  put(store, U"a", pattern(600));
  close(store);
  const Bytes& image = host.file(U"x.st");
  checkImage(image);
  EXPECT_EQ(nameAt(image, recordAt<Header>(image, 0).directoryOffset), "x.st");
  EXPECT_EQ(reloaded(U"x.st"), (Contents{{U"a", pattern(600)}}));
}

TEST_F(FileTest, ADirectoryReadInPartCanBeReadButNotUpdated) {
  Store* store = open(U"x.st", kMake);
  put(store, U"a", "0123456789");
  put(store, U"b", "bee");
  close(store);
  World other(host.disk());
  Bytes& image = other.host.file(U"x.st");
  setField(image, entryOffset(image, "b"), &Entry::next, int64_t{1} << 40);
  store = other.open(U"x.st", kRead);
  EXPECT_TRUE(other.status == kUnreadable && other.get(store, U"a") == "0123456789");
  EXPECT_TRUE(other.open(U"x.st", kRead) == store && other.status == kUnreadable);
  for (int round = 0; round < 2; ++round, other.closeAll()) {
    EXPECT_TRUE(other.open(U"x.st", kUpdate) == nullptr && other.status == kUnreadable);
    EXPECT_EQ(other.open(U"x.st", kUpdate | kNoFile), nullptr);
  }
  image = host.file(U"x.st");
  EXPECT_TRUE(other.open(U"x.st", kUpdate) != nullptr && other.status == kOk) << "loaded anew";
}

// A page block that is cut off at the file's end: its bytes are there, but rewriting it whole would
// reach into what is added behind the end.
TEST_F(FileTest, APageCutOffAtTheFilesEndIsReadButNotAppendedTo) {
  makeFile(U"x.st", "");
  put(open(U"x.st", kUpdate), U"a", "0123456789");
  closeAll();
  host.file(U"x.st").resize(host.file(U"x.st").size() - 4000);
  World other(host.disk());
  EXPECT_EQ(other.get(other.open(U"x.st", kRead), U"a"), "0123456789");
  other.closeAll();
  EXPECT_TRUE(other.openItem(other.open(U"x.st", kUpdate), U"a", kUpdate) == nullptr);
  EXPECT_EQ(other.status, kUnreadable);
}

// ---- foreign files

TEST_F(FileTest, AForeignFileIsConvertedRecordByRecord) {
  Store* store = open(U"x.st", kMake);
  hxcrateSetPageSize(store, 8192);
  put(openIn(store, U"n", kMake), U"y", pattern(20000));
  put(store, U"a", "0123456789");
  closeAll();
  const Contents wanted = contents(open(U"x.st", kRead));
  World other({{U"x.st", asBigEndian(host.file(U"x.st"))}});
  other.host.longestRead = 7;
  for (int64_t round = 1; round <= 2; ++round) {
    store = other.open(U"x.st", kRead);
    EXPECT_EQ(store->pageSize, 8192);
    EXPECT_EQ(other.contents(store), wanted) << "bytes come as stored";
    other.close(store);
    EXPECT_EQ(other.host.count("make converter"), round);
    EXPECT_EQ(other.host.liveConverters, 0);
  }
}

TEST_F(FileTest, ConvertingReads) {
  std::string stored;
  for (const char c : pattern(6000))
    stored += {'\0', c};
  host.file(U"x.st") = asBigEndian(makeFile(U"y.st", stored));
  int argument = 0;
  ItemHandle* reader = openItem(open(U"x.st", kRead), U"a", kRead);
  EXPECT_EQ(read(reader, 4000, &argument), pattern(4000));
  EXPECT_EQ(reader->position, 8000) << "the position counts stored bytes";
  for (const uint32_t kind : {kMeasureFault, kAllocateFault}) {
    host.fail(kind, 1);
    EXPECT_TRUE(read(reader, 10, &argument).empty() && status == kNoMemory);
    EXPECT_EQ(reader->position, 8000);
  }
  host.fail(kConvertFault, 1);
  EXPECT_TRUE(read(reader, 1, &argument).empty() && status == kNoMemory);
  EXPECT_EQ(read(reader, 9000, &argument), pattern(6000).substr(4001));
  EXPECT_EQ(status, kEndOfItem);
  EXPECT_EQ(host.count("make converter"), 2);
  reader = openItem(open(U"y.st", kRead), U"a", kRead);
  EXPECT_EQ(read(reader, 10, &argument), stored.substr(0, 10)) << "one's own is not converted";
}

// ---- damage

// A file with every kind of record; a page size of 16 keeps it small.
Bytes smallImage() {
  World w;
  Store* store = w.open(U"x.st", kMake);
  hxcrateSetPageSize(store, 16);
  w.put(store, U"empty", "");
  w.put(store, U"one", "0123456789");
  w.put(store, U"three", pattern(40));
  w.put(w.openIn(store, U"n", kMake), U"full", pattern(32));
  w.openIn(store, U"n/deep", kMake);
  w.closeAll();
  return w.host.file(U"x.st");
}

// Opens, lists, reads and updates whatever can be; none of it may leave the file or take for ever.
void useDamaged(const Bytes& image) {
  World w({{U"x.st", image}});
  const auto size = static_cast<int64_t>(image.size());
  Store* store = w.open(U"x.st", kRead);
  EXPECT_TRUE(w.status == kOk || w.status == kUnreadable || w.status == kNotFound) << w.status;
  if (store != nullptr) w.list(store);
  if (store != nullptr) w.contents(store);
  EXPECT_LE(w.host.count("read"), 10 + size / 8) << "more reads than the file has records";
  for (const auto& [what, offset, length] : w.host.events)
    EXPECT_TRUE(what != "read" || offset < kHeaderSize || offset + length <= size) << offset;
  w.closeAll();
  store = w.open(U"x.st", kUpdate);
  if (store != nullptr) w.put(store, U"three", pattern(50));
  if (store != nullptr) w.put(store, U"new", pattern(50));
  w.closeAll();
  EXPECT_TRUE(store != nullptr || w.host.file(U"x.st") == image);
}

TEST(Damage, EveryFieldOfEveryRecordWithEveryNastyValue) {
  const Bytes image = smallImage();
  checkImage(image);
  forEachDamage(image, useDamaged);
}

TEST(Damage, EveryLength) {
  const Bytes image = smallImage();
  for (size_t length = 0; length < image.size(); ++length) {
    SCOPED_TRACE(length);
    useDamaged(Bytes(image.begin(), image.begin() + static_cast<int64_t>(length)));
  }
}

TEST(Damage, IsReportedByTheOpenThatMeetsIt) {
  const Bytes image = smallImage();
  const int64_t three = entryOffset(image, "three");
  const int64_t chunk = recordAt<Entry>(image, three).firstLink;
  const int64_t second = recordAt<DataChunk>(image, chunk).next;
  struct Case {
    int64_t field;
    int64_t value;
    size_t width;
    int32_t status;
  };
  for (const Case& c : {Case{24, INT32_MIN, 8, kUnreadable},   // page size
                        {three + 16, three, 8, kUnreadable},   // next entry
                        {second + 16, chunk, 8, kOk},          // next page
                        {second + 8, 17, 4, kOk},              // capacity
                        {chunk + 12, -1, 4, kOk},              // used
                        {second + 12, 15, 4, kOk},             // used, in the middle
                        {second, int64_t{1} << 40, 8, kOk},    // the bytes
                        {three + 24, int64_t{-8}, 8, kOk}}) {  // first page
    World w({{U"x.st", image}});
    std::memcpy(w.host.file(U"x.st").data() + c.field, &c.value, c.width);
    Store* store = w.open(U"x.st", kRead);
    EXPECT_EQ(w.status, c.status) << c.field << " " << c.value;
    EXPECT_EQ(store == nullptr || c.status != kOk ? "status -13" : w.get(store, U"three"),
              "status -13");
  }
}

TEST(Damage, AReadOrLoadThatFailsLeavesTheItemAsItWas) {
  World w({{U"x.st", smallImage()}});
  ItemHandle* reader = w.openItem(w.open(U"x.st", kUpdate), U"three", kRead);
  w.host.fail(kReadFault, 1);
  EXPECT_TRUE(w.read(reader, 40) == pattern(16) && w.status == kUnreadable);
  EXPECT_EQ(w.read(reader, 40), pattern(40).substr(16)) << "it goes on where it stopped";
  w.put(w.cached(U"x.st"), U"fresh", pattern(40));
  for (const uint32_t kind : {kAllocateFault, kReadFault}) {
    w.host.fail(kind, 2);
    EXPECT_TRUE(w.openItem(w.cached(U"x.st"), U"fresh", kRead) == nullptr && w.host.hasFired());
    EXPECT_EQ(w.status, kind == kAllocateFault ? kNoMemory : kUnreadable);
  }
  EXPECT_EQ(w.get(w.cached(U"x.st"), U"fresh"), pattern(40));
}

}  // namespace
}  // namespace hx::fake
