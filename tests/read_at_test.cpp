// Reading items at any place: as a handle that reads on, whatever is damaged and whatever fails.
// That the bytes are the same is compared wherever a story looks into a store.
#include "item/read_at.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "item/open_view.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

struct Outcome {
  Bytes bytes;
  int32_t status;
};

// All of an item by a handle that reads on.
Outcome readOn(World& w, Store* store, const std::u32string& name) {
  ItemHandle* handle = w.openItem(store, name, "R");
  Outcome outcome{{}, w.status};
  if (handle == nullptr) return outcome;
  outcome.bytes.resize(static_cast<size_t>(handle->item->size) + 1);
  const uint32_t count =
      handle->item->read(handle, outcome.bytes.data(), static_cast<int32_t>(outcome.bytes.size()),
                         nullptr, &outcome.status);
  outcome.bytes.resize(count);
  EXPECT_EQ(handle->item->close(handle), 0);
  return outcome;
}

Bytes part(const Bytes& all, int64_t offset, size_t length) {
  const auto from = std::min(static_cast<size_t>(offset), all.size());
  const auto to = std::min(from + length, all.size());
  return {all.begin() + static_cast<std::ptrdiff_t>(from),
          all.begin() + static_cast<std::ptrdiff_t>(to)};
}

TEST(ReadAt, TheHostSaysWhetherItsFilesCan) {
  for (const bool readsAt : {false, true}) {
    FakeHost host;
    host.readsAt = readsAt;
    hxmodent(&host);
    ExtensionInstance* instance = hx::hxcrate();
    EXPECT_EQ(instance->filesReadAt, readsAt);
    instance->destroy(instance);
  }
}

TEST(ReadAt, CallsTheHostOnceForManyPagesAndForASmallItem) {
  World w;
  w.run("open x UC; write x:a 300000; write x:b 100; close x; open x R; mark");
  View view(w, w.find("x"), U"a");
  for (int64_t offset = 0; offset < 262144; offset += 65536)
    EXPECT_EQ(view.read(offset, 65536).size(), 65536u);
  EXPECT_EQ(w.host.count("vector"), 4);
  Bytes bytes(4096);
  int64_t size = 0;
  int32_t status = kOk;
  w.instance->readItem(w.instance, w.find("x"), U"b", 1, bytes.data(), 4096, &size, &status);
  EXPECT_EQ(w.host.count("vector"), 5);
  EXPECT_EQ(size, 100);
  EXPECT_EQ(w.host.count("read"), 0);
}

TEST(ReadAt, RefusesWhatIsNotThereOrInUse) {
  World w;
  w.run("open x UC; open x:n UC; write x:a 10; item a x:a U");
  const auto outcome = [&](Store* store, const std::u32string& name) {
    return View(w, store, name).status;
  };
  EXPECT_EQ(outcome(w.find("x"), U"z"), kNotFound);
  EXPECT_EQ(outcome(w.find("x"), U"n"), kNotFound);
  EXPECT_EQ(outcome(w.find("x"), U"a"), kItemInUse);
  EXPECT_EQ(outcome(nullptr, U"x/a"), kItemInUse);
  EXPECT_EQ(outcome(nullptr, U"a"), kNoStore);
  w.run("shut a; close x:n; close x; open x R");
  View view(w, w.find("x"), U"a");
  for (const int64_t offset : {int64_t{-1}, int64_t{10}, INT64_MAX}) {
    EXPECT_TRUE(view.read(offset, 5).empty());
    EXPECT_EQ(view.status, kEndOfItem);
  }
  EXPECT_EQ(view.read(3, 0).size(), 0u);
  EXPECT_EQ(view.status, kOk);
  w.find("x")->closeStore(w.find("x"));  // under the view
  EXPECT_TRUE(view.read(0, 5).empty());
  EXPECT_EQ(view.status, kFileNotOpen);
}

// A store in memory is given a file while somebody looks at an item of it; another reader, which
// drops pages behind it once the file has them, must leave them to the view.
TEST(ReadAt, PagesThatWereFoundInMemoryStay) {
  World w;
  w.run("open m UCN; pagesize m 16; write m:a 100");
  Store* store = w.find("m");
  const Bytes all = readOn(w, store, U"a").bytes;
  View view(w, store, U"a");
  EXPECT_EQ(view.read(0, 40), part(all, 0, 40));
  store->closeStore(store);
  for (const char* flags : {"U", "R"}) {
    EXPECT_EQ(w.openStore(nullptr, U"m", flags), store);
    EXPECT_EQ(readOn(w, store, U"a").bytes, all);
    EXPECT_EQ(view.read(0, 200), all);
    store->closeStore(store);
  }
}

// What the loader refuses is refused here where it is met, and all before it is read.
TEST(ReadAt, ChecksEachRecordAsTheLoaderDoes) {
  World made;
  made.run("open x UC; pagesize x 16; write x:a 40; write x:b 5; write x:c 32; close x");
  int damaged = 0;
  forEachDamage(made.image("x"), [&](const Bytes& image) {
    for (const bool readsAt : {false, true}) {
      World w({{"x", image}});
      w.instance->filesReadAt = readsAt;
      Store* store = w.openStore(nullptr, U"x", "R");
      for (const std::u32string name : {U"a", U"b", U"c"}) {
        if (store == nullptr) continue;
        Outcome read{{}, kOk};
        {
          View view(w, store, name);
          if (!view.isOpen()) continue;
          read.bytes = view.read(0, 5000);  // also where it goes in circles
          read.status = view.status;
        }
        const Outcome expected = readOn(w, store, name);
        damaged += expected.status == kUnreadable ? 1 : 0;
        EXPECT_EQ(read.status, expected.status);
        EXPECT_TRUE(read.status != kEndOfItem || read.bytes == expected.bytes);
      }
    }
  });
  EXPECT_GT(damaged, 100);
}

// Every call of the host fails once, or from then on.
TEST(ReadAt, AFailureOfTheHostIsToldOrMadeGood) {
  World w;
  w.run(
      "open x UC; pagesize x 16; write x:a 1000; item p x:p UC; item q x:q UC; write p 20; write q "
      "20; "
      "write p 20; shut p; shut q; close x; foreign y x");
  for (const std::string file : {"x", "y"}) {
    for (const std::string kinds : {"vector", "allocate", "lock", "read seek", "short"}) {
      for (const int second : {0, kAllAfter}) {
        int fired = 1;
        for (int nth = 1; fired > 0; ++nth) {
          fired = 0;
          w.run("open " + file + " R");
          for (const std::u32string name : {U"a", U"p"}) {
            const Bytes all = readOn(w, w.find(file), name).bytes;
            w.host.fail(kinds, nth, second);
            View view(w, w.find(file), name);
            for (int64_t offset = 0; view.isOpen() && offset < std::ssize(all); offset += 100) {
              const Bytes bytes = view.read(offset, 100);
              const Bytes expected = part(all, offset, 100);
              EXPECT_EQ(bytes, part(expected, 0, bytes.size()));
              EXPECT_TRUE(view.status != kOk || bytes == expected);
              EXPECT_TRUE(kinds != "vector" || bytes == expected) << "it could be read otherwise";
              EXPECT_TRUE(bytes == expected || w.host.fired > 0);
            }
            fired += w.host.fired;
            w.host.stopFailing();
            EXPECT_TRUE(!view.isOpen() || view.read(0, 2000) == all);
          }
          w.run("close " + file);
        }
      }
    }
  }
}

}  // namespace
}  // namespace hx::fake
