// The entry points, the instance, member tables and the allocator of file space.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "item/write_item.h"
#include "module/exports.h"
#include "records/lock_guard.h"
#include "records/name.h"
#include "store/store_path.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

// The host counts what is left.
TEST(Frame, TheFactoryGivesBackWhatItHasWhenTheHostRefuses) {
  for (const std::string kind : {"service", "allocate"}) {
    for (int nth = 1; nth <= 5; ++nth) {
      FakeHost host;
      host.fail(kind, nth);
      int64_t major = 0, minor = 0;
      EXPECT_TRUE(hxmodver(&host, &major, &minor) == 0 && major == 6 && minor == 1);
      ExtensionInstance* instance = hx::hxcrate();
      // Without encodings, the fourth service, it works.
      EXPECT_EQ(instance == nullptr, nth <= (kind == "service" ? 3 : 1));
      EXPECT_TRUE(instance == nullptr || instance->destroy(instance) == 0);
    }
  }
  hxmodent(nullptr);
  EXPECT_EQ(hx::hxcrate(), nullptr);
}

TEST(Frame, VersionsAndTheVersionRecord) {
  World w;
  int64_t v[6] = {};
  w.instance->getRequiredVersion(w.instance, &v[0], &v[1], &v[2]);
  w.instance->getVersion(w.instance, &v[3], &v[4], &v[5]);
  EXPECT_EQ(std::vector<int64_t>(v, v + 6), (std::vector<int64_t>{6, 1, 1, 1, 0, 3}));
  int64_t slots[kVersionSlots + 1] = {};
  slots[kVersionSlots] = 77;
  EXPECT_TRUE(hxrelct1(slots) == 0 && slots[kVersionSlots] == 77);
  const size_t lengths[] = {18, 13, 0, 0, 6, 7, 5, 18, 0, 7, 2, 0, 65, 0, 65, 5, 28};
  for (int i = 0; i < 17; ++i) {
    EXPECT_TRUE(i == 3 || std::strlen(reinterpret_cast<const char*>(slots[i])) == lengths[i]) << i;
  }
}

TEST(Frame, WithoutEncodingsTheIdentityIsZeroAndHeadersCarryIt) {
  World w({}, false);
  w.run("open x UC; write x:a 10; close x");
  EXPECT_EQ(Bytes(w.image("x").begin(), w.image("x").begin() + 24), Bytes(24));
  w.run("open x U; read x:a -> 10; item r x:a R; convert r 5; shut r; close x");
  World other(w.host.files);
  other.run(
      "open x R -> unreadable; open y UC; close y");  // nobody converts from an unknown encoding
  World another(other.host.files, false);
  another.run("open y R -> unreadable");
}

TEST(Frame, PathOfAFile) {
  World w;
  w.run("open x UC; open x:n UC; open m UCN");
  char32_t path[20] = {};
  Store* nested = w.find("x:n");
  for (const auto& [room, copied] : {std::pair{4, 4}, {0, 0}, {-1, 0}, {20, 7}}) {
    int32_t length = room;
    EXPECT_TRUE(nested->path(nested, path, &length) == kOk && length == copied);
  }
  EXPECT_EQ(std::u32string(path), U"/full/x");
  int32_t length = 20;
  EXPECT_TRUE(hxcratePath(w.find("m"), path, &length) == kOk && length == 0);
}

// ---- members and space

TEST(Frame, EnumeratesBucketsInOrder) {
  EXPECT_TRUE(hashName({U"ab", 2}) == 102038009u && hashName({U"abc", 3}) == 1486459893u);
  World w;
  w.run(
      "open x UC; list x; open x:e UC; write x:y 1; write x:ad 1; write x:a 1; list x -> a y e/ "
      "ad");
  char32_t name[8] = {};
  int32_t length = 0, kind = 0;
  Store* store = w.find("x");
  for (const auto& [absent, found] : {std::pair{U"xy", kOk}, {U"dh", kNotFound}})
    EXPECT_EQ(store->getNextMember(store, absent, 2, name, &length, &kind), found) << "behind none";
  w.run("write x: 3");
  ItemHandle* nameless = w.instance->openItem(w.instance, store, nullptr, -7, kRead, &w.status);
  ASSERT_NE(nameless, nullptr) << "a negative length is an empty name";
  EXPECT_TRUE(nameless->item->size == 3 && nameless->item->close(nameless) == 0);
}

// Twelve names in turn have one whole hash. Once a table is large and searched there is an index,
// which the checks compare with the chains: without one, with one that can't grow, and that can.
TEST(Frame, StoresEnterAndLeaveALargeTable) {
  for (const uint64_t largestBlock :
       {uint64_t{4'000}, uint64_t{10'000}, uint64_t{20'000}, UINT64_MAX}) {
    World w;
    std::vector<Store*> stores;
    const auto open = [&](uint32_t i, const char* flags) {
      const char32_t first[] = {i % 12 + 1};
      const char32_t name[] = {first[0], i / 12 * 5 - hashName({first, 1})};
      return w.openStore(nullptr, {name, 2}, flags);
    };
    w.host.largestBlock = largestBlock;
    for (uint32_t i = 0; i < 1200; ++i) {
      stores.push_back(open(i, "UCN"));
      stores[i]->closeStore(stores[i]);
      if (i % 100 == 99) w.run("mark");
    }
    for (uint32_t i = 0; i < 1200; i += 3) {
      stores[i]->closeAndDeleteStore(stores[i]);
      stores[i] = nullptr;
      stores[i + 1] = open(i + 1, "UCPN");
      stores[i + 1]->closeStore(stores[i + 1]);
    }
    w.run("mark");
    for (uint32_t i = 0; i < 1200; ++i)
      ASSERT_EQ(open(i, "R"), stores[i]) << i;
    EXPECT_TRUE(w.instance->storeIndex.slots != nullptr || largestBlock != UINT64_MAX);
  }
}

// One name in fifty is cut by the format, so that the loaded table has that name seven times.
TEST(Frame, MembersOfALargeTable) {
  World w;
  w.run("open x UC; pagesize x 1");
  for (int i = 0; i < 350; ++i)
    w.run("write x:" + std::string(i % 50 == 0 ? "c*64n" : "") + std::to_string(i) + " 1");
  w.run("restart; open x U; mark; list x -> 344; count allocate -> 0; read x:77 -> 1");
}

// The tree stays until the file is as it was left, and then goes into it.
TEST(Frame, NothingUnsavedIsGivenUpForAFileThatChanged) {
  for (const auto& [news, look] : {std::pair("write x:b 9000", "read x:b -> 9000"),
                                   {"write x:b 0", "read x:b -> 0"},
                                   {"open x:b UC", "open x:b R"},
                                   {"open x:n R; write x:n:b 1", "open x:n R; read x:n:b -> 1"}}) {
    World w;
    w.run("open x UC; write x:a 3; open x:n UC; close x; open x UN;" + std::string(news));
    w.run(
        "close x; grow x 1; open x R -> fileNotOpen; open x UC -> fileNotOpen; open x RN -> "
        "fileNotOpen; grow x -1; open x U; close x");
    World other(w.host.files);
    other.run("open x R; read x:a -> 3;" + std::string(look));
  }
}

TEST(Frame, DamageOfABlobComesBeforeWantOfMemory) {
  World w;
  w.run("open m UCN; write m:a 3; blob m B");
  Bytes& blob = w.image("B");
  setNamedField(blob, "header.directoryOffset", std::to_string(blob.size() - 95));
  w.host.fail("allocate", 2);
  EXPECT_EQ(w.openBlob(blob.data(), blob.size(), U"B"), nullptr);
  EXPECT_EQ(w.status, kUnreadable);
}

TEST(Frame, SpaceComesFromReleasedExtentsOfTheSameLengthOrTheEnd) {
  using namespace exported;
  World w;
  w.run("open x UC; open x:n UC");
  Store* store = w.find("x");
  EXPECT_EQ(allocateDiskSpace(w.find("x:n"), 4096), 40);
  releaseDiskSpace(store, 1000, 24);
  releaseDiskSpace(store, 2000, 24);
  for (const auto& [length, offset] : {std::pair{96, 4136}, {24, 2000}, {24, 1000}})
    EXPECT_EQ(allocateDiskSpace(store, length), offset);
  EXPECT_EQ(store->freeList, nullptr);
  w.host.fail("allocate", 1);
  releaseDiskSpace(store, 3000, 0);
  EXPECT_EQ(store->freeList, nullptr) << "forgotten";
  releaseDiskSpace(store, 3000, 0);
  releaseDiskSpace(store, 3000, 96);
  EXPECT_EQ(store->freeList->next, nullptr) << "the empty node is filled";
  store->freeList->keep = 1;
  EXPECT_TRUE(allocateDiskSpace(store, 96) == 3000 && store->freeList->length == 0);
  releaseDiskSpace(store, 5000, 24);
}

// The file ends with the page of an item that was there before: its ENTRY lies in front of it.
TEST(Frame, AFileThatWasCutShortIsReadButNotUpdated) {
  for (const std::string size : {"10", "9000"}) {
    for (const std::string cut : {"0", "-1", "-4000", "-4086"}) {
      World w;
      w.run("open x UC; write x:e 0; write x:b 20; close x; restart; open x U; write x:e " + size);
      w.run("close x; grow x " + cut + "; restart; open x R; read x:b -> 20; close x; restart");
      w.run("open x U" + std::string(cut == "0" ? "" : " -> unreadable"));
    }
  }
}

// What stands behind them in the product has other results.
TEST(Frame, ExportedRoutinesHaveTheResultsTheyAreKnownBy) {
  using namespace exported;
  World w;
  w.run(
      "open m UCN; pagesize m 16; write m:a 40; blob m B; load B R; open x UC; close x; grow short "
      "39");
  const LockGuard lock(w.instance->lock);
  int32_t status = 99;
  EXPECT_TRUE(loadItemStore(w.instance, U"none", 4, kRead, &status) == nullptr && status == 99);
  EXPECT_TRUE(loadItemStore(w.instance, U"short", 5, kRead, &status) == nullptr && status == kOk);
  Store* bare = loadItemStore(w.instance, U"x", 1, kExclusive, &status);
  ASSERT_TRUE(bare != nullptr && status == kExists && bare->file == nullptr);
  w.instance->pool->free(w.instance->pool, bare);
  Member* found = lookup(&w.find("B")->members, 18, U"a", 1);
  ASSERT_TRUE(found != nullptr && lookup(&w.find("B")->members, 18, U"b", 1) == nullptr);
  ItemMember* item = asItem(found);
  EXPECT_TRUE(loadItem(item, kUpdate) == 0 && item->firstPage == nullptr) << "no last page there";
  w.host.fail("allocate", 1);
  EXPECT_EQ(loadItem(item, kRead), -1);
  EXPECT_TRUE(loadItem(item, kRead) == 0 && item->size == 40);
  decrementPageUseCount(item, item->firstPage);
  EXPECT_EQ(item->firstPage, nullptr);
}

TEST(Frame, AnItemEndsAtItsLimit) {
  World w;
  w.run("open m UCN; item w m:a UC");
  ItemHandle* writer = w.handle("w");
  // As if it had been written that far.
  writer->item->size = writer->position = INT32_MAX - 5;
  writer->page->index = writer->position / 4096;
  const std::string bytes(10, 'x');
  for (const int32_t taken : {5, 0}) {
    EXPECT_EQ(hxcrateWrite(writer, bytes.data(), 10, &w.status), taken);
    EXPECT_TRUE(w.status == kNoMemory && writer->item->size == INT32_MAX);
  }
  writer->item->size = writer->position = 0;
  writer->page->index = 0;
}

}  // namespace
}  // namespace hx::fake
