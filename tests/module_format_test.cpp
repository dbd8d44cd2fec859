// The exact bytes of files and blobs, and what becomes of names, links and foreign records.
#include <gtest/gtest.h>

#include "file/translation.h"
#include "module/exports.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

template <typename Value>
Bytes bytesOf(const Value& value) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
  return {bytes, bytes + sizeof(value)};
}

TEST(Format, MapsAndCodesByteForByte) {
  EXPECT_EQ(bytesOf(HEADER_map),
            (Bytes{0, 0, 0, 9, 24, 0, 64, 6, 1, 0, 0, 25, 1, 0, 0, 25, 0, 0, 0, 10, 0, 0, 0, 0}));
  EXPECT_EQ(bytesOf(ENTRY_map), (Bytes{0, 0, 0, 9,  1,  0, 0,  25, 1, 0, 0, 25, 1, 0, 0, 25,
                                       1, 0, 0, 25, 64, 0, 64, 6,  0, 0, 0, 10, 0, 0, 0, 0}));
  EXPECT_EQ(bytesOf(DATACHUNK_map), (Bytes{0, 0,  0, 9, 1, 0,  0, 25, 1, 0,  0, 27, 1, 0,
                                           0, 27, 1, 0, 0, 25, 0, 0,  0, 10, 0, 0,  0, 0}));
  EXPECT_TRUE(exported::translateStructure(nullptr, nullptr, 257, HEADER_map) == -1 &&
              exported::translateStructure(nullptr, nullptr, -1, HEADER_map) == -1);
  EXPECT_EQ(bytesOf(pageSizeCodeOf(8192)), (Bytes{0, 0xe0, 255, 255, 255, 255, 255, 255}));
}

// The rest of a file's and a blob's bytes stands in docs/format.md, and is compared there.
TEST(Format, TheTopEntryHasTheLastComponentOfThePath) {
  World w;
  for (const std::u32string path : {U"x.st", U"/d/x.st", U"d\\x.st", U"c:x.st"}) {
    Store* store = w.openStore(nullptr, path, "UC");
    store->closeStore(store);
    EXPECT_EQ(w.image({path.begin(), path.end()}), w.image("x.st"));
  }
  EXPECT_EQ(nameAt(w.image("x.st"), recordAt<Header>(w.image("x.st"), 0).directoryOffset), "x.st");
}

TEST(Format, ABlobIsReadWhereItLies) {
  World w;
  w.run("open m UCN; write m:a 10; blob m B -> 4376; blob m C -> 4376; load B R; item r B:a R");
  EXPECT_EQ(w.image("B"), w.image("C"));
  const ItemHandle* reader = w.handle("r");
  const Store* store = w.find("B");
  EXPECT_EQ(reader->page->buffer, w.image("B").data() + 280) << "no copy";
  EXPECT_TRUE(store->flags == kMemoryBacked && store->file == w.image("B").data());
  EXPECT_TRUE(store->blobSize == 4376 && reader->item->write == nullptr);
  // An item that filled a page before has its first record before the top ENTRY.
  w.run("open n UCN; item w n:a UC; write w 4096; blob n D");
  EXPECT_EQ(recordAt<Header>(w.image("D"), 0).directoryOffset, 64);
  EXPECT_EQ(recordAt<Entry>(w.image("D"), entryOffset(w.image("D"), "a")).firstLink, 40);
  const PageBuf* full = w.handle("w")->item->firstPage;
  EXPECT_TRUE(full->useCount == 0 && full->next->useCount == 1) << "the writer stands on the next";
}

// Every store of the tree, each with items before and behind nested stores.
TEST(Format, LinksOfADirectory) {
  World w;
  w.run("open x UC; pagesize x 16; open x:n UC; open x:n/deep UC");
  for (const std::string store : {"x:", "x:n/", "x:n/deep/"}) {
    for (const std::string name : {"a", "b", "k", "z", ""})
      w.run("write " + store + name + " 20");
    w.run("open " + store + "m UC; open " + store + "last UC");
  }
  w.settle();
  std::map<int64_t, int64_t> last;  // nested store written last, by its store
  for (const auto& [kind, offset] : recordsOf(w.image("x"))) {
    const std::string name = kind == 'e' ? nameAt(w.image("x"), offset) : "";
    if (name.find_first_of("nmdl") != 0) continue;  // a nested store's begin so
    const auto entry = recordAt<Entry>(w.image("x"), offset);
    EXPECT_EQ(entry.previousLink, std::exchange(last[entry.parentLink], offset));
  }
}

// Names keep 64 low bytes, up to the first zero. Twins stay both, and are listed once.
TEST(Format, NamesAreCut) {
  World w;
  w.run(
      "open x UC; write x:q*64 6; write x:q*65 1; open x:t UC; write x:t/q*65 1; write x:t/q*66 2");
  for (const std::u32string name : {U"\u0141", U"b\u0100c", U"\u0080\u00ff", U"\u0001\n;= *"}) {
    ItemHandle* made = w.openItem(w.find("x"), name, "UC");
    EXPECT_EQ(made->item->close(made), 0);
  }
  w.run("close x");
  World other(w.host.files);
  other.run(
      "open x U; list x:t -> 1; list x -> 6; read x:A -> 0; read x:b -> 0; read x:\x80\xff -> 0");
  EXPECT_EQ(chained(other.find("x:t")->members).size(), 2u);
  other.run("close x");
  EXPECT_EQ(recordsOf(other.image("x")).size(), recordsOf(w.image("x")).size());
}

}  // namespace
}  // namespace hx::fake
