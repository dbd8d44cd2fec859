// The exact bytes of files and blobs, and what becomes of names, links and foreign records.
#include <gtest/gtest.h>

#include "file/record_maps.h"
#include "file/translate.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

template <typename Value>
Bytes bytesOf(const Value& value) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
  return {bytes, bytes + sizeof(value)};
}

// The bytes of the item `a` from one place to another.
std::string itemBytes(int64_t from, int64_t to) {
  char32_t name = U'a';
  ItemMember item = {};
  item.name = &name;
  item.nameLength = 1;
  std::string bytes;
  for (int64_t place = from; place < to; ++place)
    bytes += byteAt(&item, place);
  return bytes;
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
  EXPECT_TRUE(translateStructure(nullptr, nullptr, 257, HEADER_map) == -1 &&
              translateStructure(nullptr, nullptr, -1, HEADER_map) == -1);
  EXPECT_EQ(bytesOf(pageSizeCodeOf(8192)), (Bytes{0, 0xe0, 255, 255, 255, 255, 255, 255}));
}

TEST(Format, FilesByteForByte) {
  Bytes ten(4352);
  putRecord(ten, 0, headerOf(0, 4160));
  putRecord(ten, 40, DataChunk{64, 4096, 10, 0});
  putText(ten, 64, itemBytes(0, 10));
  putRecord(ten, 4160, entryOf(0, 0, 0, 4256, "x.st"));
  putRecord(ten, 4256, entryOf(4160, 0, 0, 40, "a"));
  for (const std::string path : {"/d/x.st", "d\\x.st", "x.st"}) {
    World w;
    w.run("open " + path + " UC; put " + path + ":a 10; close " + path);
    EXPECT_EQ(w.image(path), ten) << path;
  }
  World w({{"x.st", ten}});
  w.run("open x.st U; put x.st:a 5; close x.st");
  putRecord(ten, 40, DataChunk{64, 4096, 15, 0});
  putText(ten, 64, itemBytes(0, 15));
  EXPECT_EQ(w.image("x.st"), ten) << "appending rewrites in place";

  Bytes many(8472);
  putRecord(many, 0, headerOf(0, 8280));
  putRecord(many, 40, DataChunk{64, 4096, 4096, 4160});
  putText(many, 64, itemBytes(0, 4096));
  putRecord(many, 4160, DataChunk{4184, 4096, 904, 0});
  putText(many, 4184, itemBytes(4096, 5000));
  putRecord(many, 8280, entryOf(0, 0, 0, 8376, "y"));
  putRecord(many, 8376, entryOf(8280, 0, 0, 40, "a"));
  w.run("open y UC; put y:a 5000; close y; open z UC; close z");
  EXPECT_EQ(w.image("y"), many);
  Store* store = w.instance->openStore(w.instance, nullptr, U"c:z", 3, flagsOf("UC"), &w.status);
  store->closeStore(store);
  EXPECT_EQ(w.image("c:z"), w.image("z"));
}

TEST(Format, BlobsByteForByte) {
  Bytes wanted(4376);
  putRecord(wanted, 0, headerOf(0, 40));
  putRecord(wanted, 40, entryOf(0, 0, 0, 136, "m"));
  putRecord(wanted, 136, entryOf(40, 0, 0, 232, "a"));
  putRecord(wanted, 232, DataChunk{280, 4096, 10, 0});
  putText(wanted, 280, itemBytes(0, 10));
  World w;
  w.run(
      "open /d/m UCN; put /d/m:a 10; blob /d/m B =4376; blob /d/m C =4376; load B R; item r B:a R");
  EXPECT_TRUE(w.image("B") == wanted && w.image("C") == wanted);
  const ItemHandle* reader = w.handle("r");
  const Store* store = w.find("B");
  EXPECT_EQ(reader->page->buffer, w.image("B").data() + 280) << "no copy";
  EXPECT_TRUE(store->flags == kMemoryBacked && store->file == w.image("B").data());
  EXPECT_TRUE(store->blobSize == 4376 && reader->item->write == nullptr);
  // An item that filled a page before has its first record before the top ENTRY.
  w.run("open m UCN; item w m:a UC; write w 4096; blob m D");
  EXPECT_EQ(recordAt<Header>(w.image("D"), 0).directoryOffset, 64);
  EXPECT_EQ(recordAt<Entry>(w.image("D"), entryOffset(w.image("D"), "a")).firstLink, 40);
  const PageBuf* full = w.handle("w")->item->firstPage;
  EXPECT_TRUE(full->useCount == 0 && full->next->useCount == 1) << "the writer stands on the next";
}

// Every store of the tree, each with items before and behind nested stores.
TEST(Format, LinksOfADirectory) {
  World w;
  w.run("open x UC; page x 16; open x:n UC; open x:n/deep UC");
  for (const std::string store : {"x:", "x:n/", "x:n/deep/"}) {
    for (const std::string name : {"a", "b", "k", "z", ""})
      w.run("put " + store + name + " 20");
    w.run("open " + store + "m UC; open " + store + "last UC");
  }
  w.settle();
  for (const StoredRecord& record : recordsOf(w.image("x"))) {
    if (record.kind != 's') continue;
    EXPECT_EQ(recordAt<Entry>(w.image("x"), record.offset).previousLink, record.previous);
  }
}

TEST(Format, MembersOfABucketTurnRoundWithEveryLoad) {
  World w;
  w.run("open x UC; open x:e UC; put x:y 3; close x");
  const size_t size = w.image("x").size();
  EXPECT_EQ(chainOf(w.image("x")), "y e/ ");
  Disk disk = w.host.disk();
  for (const char* chain : {"e/ y ", "y e/ ", "e/ y "}) {
    World other(disk);
    other.run("open x U; close x; open x R; get x:y =3; close x");
    disk = other.host.disk();
    EXPECT_TRUE(chainOf(disk["x"]) == chain && disk["x"].size() == size);
    checkImage(disk["x"]);
  }
}

// Names keep 64 low bytes, up to the first zero. Twins stay both, and are listed once.
TEST(Format, NamesAreCut) {
  World w;
  Store* store = w.open("x", "UC");
  w.run("put x:q*64 64; put x:q*65 1; open x:twin UC; put x:twin/q*65 1; put x:twin/q*66 2");
  for (const std::u32string name : {U"\u0141", U"b\u0100c", U"\u0080\u00ff", U"\u0001\n;= *"}) {
    const auto length = static_cast<int32_t>(name.size());
    const auto flags = flagsOf("UC");
    ItemHandle* made =
        w.instance->openItem(w.instance, store, name.data(), length, flags, &w.status);
    EXPECT_EQ(made->item->close(made), 0);
  }
  w.run("close x");
  World other(w.host.disk());
  other.run("open x U; list x:twin =1; list x =6; get x:A =0; get x:b =0; get x:\x80\xff =0");
  EXPECT_EQ(chained(other.find("x:twin")->members).size(), 2u);
  other.run("close x");
  EXPECT_EQ(recordsOf(other.image("x")).size(), recordsOf(w.image("x")).size());
}

TEST(Format, AHeaderWithoutADirectoryIsAnEmptyStore) {
  World w({{"x", bytesOf(headerOf(-512, 0))}, {"y", bytesOf(headerOf(4096, 0))}});
  w.run("open x R; list x =0; close x");
  const Store* store = w.find("x");
  w.run("open x U; put x:a 600; close x; open y R");
  EXPECT_TRUE(w.find("x") == store && w.find("y")->pageSize == 4096) << "registered like any other";
  EXPECT_EQ(nameAt(w.image("x"), recordAt<Header>(w.image("x"), 0).directoryOffset), "x");
  w.settle();
}

TEST(Format, ADirectoryReadInPartCanBeReadButNotUpdated) {
  World w;
  w.run("open x UC; put x:a 10; put x:b 3; close x");
  World other({{"x", w.image("x")}, {"whole", w.image("x")}});
  setField(other.image("x"), entryOffset(w.image("x"), "b"), &Entry::next, int64_t{1} << 40);
  other.run(
      "open x R !13; get x:a =10; open x R !13; open x U !13; open x UN !13; close x; close x;"
      "open x UN !13; open x U !13; copy x whole; open x U; list x a b");
}

// A page block that is cut off at the file's end: its bytes are there, but rewriting it whole would
// reach into what is added behind the end.
TEST(Format, APageCutOffAtTheFilesEndIsReadButNotAppendedTo) {
  World w;
  w.run("open x UC; put x:a 0; close x; open x U; put x:a 10; close x");
  w.image("x").resize(w.image("x").size() - 4000);
  World other(w.host.disk());
  other.run("open x R; get x:a =10; close x; open x U; item w x:a U !13");
}

// ---- foreign files

TEST(Format, AForeignFileIsConvertedRecordByRecord) {
  World w;
  w.host.longestRead = 7;
  w.run("open x UC; page x 8192; open x:n UC; put x:n/y 20000; put x:a 10; close x; foreign f x");
  for (int round = 1; round <= 2; ++round) {
    w.run("open f R; tree f; close f; count make_converter =" + std::to_string(round));
    EXPECT_TRUE(w.find("f")->pageSize == 8192 && w.host.liveConverters == 0);
  }
}

TEST(Format, ConvertingReads) {
  World w;
  w.run("open x UC; put x:a 12000; close x; foreign f x; open f R; item r f:a R; convert r 4000");
  EXPECT_EQ(w.handle("r")->position, 8000) << "the position counts stored bytes";
  w.run(
      "fail measure 1; convert r 10 =0 !3; fail allocate 1; convert r 10 =0 !3; fail make 1;"
      "fail lock 1; convert r 10 =0 !4");
  EXPECT_EQ(w.handle("r")->position, 8000);
  w.run(
      "fail convert 1; convert r 1 =0 !3; heal; convert r 9000 =1999 !6; convert r 0;"
      "convert r -1 =0 !6; count make_converter =2; open x R; item own x:a R; convert own 10");
}

}  // namespace
}  // namespace hx::fake
