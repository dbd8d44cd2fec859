// One scenario that reaches every operation, with every call to the host failing in turn, once and
// for ever; trees of any depth on a small stack; and several threads in one instance.
#include <gtest/gtest.h>
#include <pthread.h>

#include <latch>
#include <list>
#include <thread>

#include "blob/create_blob.h"
#include "blob/open_blob.h"
#include "item/open_item.h"
#include "item/read_item.h"
#include "item/write_item.h"
#include "store/close_store.h"
#include "store/enumerate.h"
#include "store/open_store.h"
#include "store/page_size.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

constexpr int32_t kPage = 64;

// What is on the disk before the scenario: two stores to update and a foreign one.
Disk oldDisk() {
  World w;
  Store* store = w.open(U"x.st", kMake);
  hxcrateSetPageSize(store, kPage);
  w.put(store, U"a", "0123456789");
  w.put(store, U"long", pattern(3 * kPage));
  w.put(w.openIn(store, U"n", kMake), U"y", pattern(kPage));
  w.closeAll();
  w.host.file(U"y.st") = w.host.file(U"x.st");
  w.host.file(U"f.st") = asBigEndian(w.host.file(U"x.st"));
  return w.host.disk();
}

Contents oldContents() {
  return {
      {U"a", "0123456789"}, {U"long", pattern(3 * kPage)}, {U"n/", ""}, {U"n/y", pattern(kPage)}};
}

// A world that remembers what its stores took, whatever failed in between.
class FailingWorld : public World {
 public:
  FailingWorld() : World(oldDisk()), known{{U"x.st", oldContents()}, {U"y.st", oldContents()}} {}

  std::list<Bytes> blobs;          // they outlive their stores
  std::map<Path, Contents> known;  // of every store that was updated or created

  void append(Store* store, const Path& path, const Path& prefix, const Path& name,
              const std::string& bytes) {
    ItemHandle* handle = store == nullptr ? nullptr : openItem(store, name, kMake);
    if (handle == nullptr) return;
    const auto taken = static_cast<size_t>(write(handle, bytes));
    known[path][prefix + name] += bytes.substr(0, taken);
    close(handle);
  }

  void update() {
    Store* store = open(U"x.st", kUpdate);
    append(store, U"x.st", U"", U"a", "more");
    append(store, U"x.st", U"", U"new", pattern(2 * kPage));
    append(store, U"x.st", U"", U"empty", "");
    Store* nested = openIn(store, U"n", kRead);
    append(nested, U"x.st", U"n/", U"fresh", pattern(10));
    Store* deep = openIn(store, U"n/deep", kMake);
    if (deep != nullptr) known[U"x.st"][U"n/deep/"];
    close(deep);
    close(nested);
    if (store != nullptr) list(store);
    close(store);
  }

  void shareAndUpgrade() {
    Store* store = open(U"y.st", kRead);
    ItemHandle* first = store == nullptr ? nullptr : openItem(nullptr, U"y.st/long", kRead);
    ItemHandle* second = store == nullptr ? nullptr : openItem(store, U"long", kRead);
    read(first, kPage + 1);
    read(second, 3 * kPage);
    ItemHandle* third = store == nullptr ? nullptr : openItem(store, U"long", kRead);
    for (ItemHandle* reader : {first, second, third})
      close(reader);
    Store* updated = open(U"y.st", kUpdate);
    append(updated, U"y.st", U"", U"long", "tail");
    close(updated);
    close(store);
  }

  void createAndReplace() {
    Store* store = open(U"new.st", kMake);
    if (store != nullptr) known[U"new.st"];
    append(store, U"new.st", U"", U"a", "one");
    close(store);
    close(open(U"gone.st", kMake));
    close(open(U"gone.st", kMake | kReplace));
    if (Store* gone = open(U"gone.st", kRead)) hxcrateCloseAndDeleteStore(gone);
  }

  void readForeign() {
    Store* store = open(U"f.st", kRead);
    int argument = 0;
    ItemHandle* reader = store == nullptr ? nullptr : openItem(store, U"long", kRead);
    read(reader, 2 * kPage, &argument);
    close(reader);
    close(store);
  }

  void makeBlob() {
    Store* store = open(U"m", kMake | kNoFile);
    put(store, U"b", pattern(5000));
    Pool* pool = store == nullptr ? nullptr : host.makePool();
    if (pool == nullptr) return;
    uint64_t size = 0;
    const auto* made = static_cast<uint8_t*>(hxcrateCreateBlobFromStore(store, &size, pool));
    if (made != nullptr) blobs.emplace_back(made, made + size);
    pool->head.destroy(pool);
    if (made == nullptr) return;
    checkImage(blobs.front());
    blobs.push_back(asBigEndian(blobs.front()));
    for (const Bytes& image : blobs) {
      if (Store* opened = openBlob(image)) get(opened, U"b");
    }
  }

  void liveInMemory() {
    Store* store = open(U"m.st", kMake | kNoFile);
    append(store, U"m.st", U"", U"b", pattern(5000));
    close(store);
    store = open(U"m.st", kUpdate);
    if (store != nullptr && store->hasHadFile) append(store, U"m.st", U"", U"c", "see");
    close(store);
  }
};

// The store on the disk is the one before the scenario, or has everything that was acknowledged,
// and the instance that lived through it sees the same as a new one.
void expectSoundStore(FailingWorld& lived, const Path& path, const Disk& before) {
  const bool isUndone = lived.host.undone.count(path) != 0;
  const auto old = before.find(path);
  if (isUndone && old == before.end()) {
    EXPECT_TRUE(!lived.host.hasFile(path) || lived.host.file(path).empty());
    return;
  }
  if (!lived.host.hasFile(path)) return;  // never got beyond memory
  EXPECT_TRUE(!isUndone || lived.host.file(path) == old->second);
  checkImage(lived.host.file(path));
  const Contents contents = lived.reloaded(path);
  EXPECT_TRUE(isUndone || contents == lived.known[path]) << "what was acknowledged is not there";
  Store* again = lived.open(path, kRead);
  ASSERT_NE(again, nullptr) << lived.status;
  EXPECT_EQ(lived.contents(again), contents) << "a stale tree in memory";
}

using Scenario = void (FailingWorld::*)();

// One life under one fault; false when nothing failed.
bool liveThrough(Scenario scenario, uint32_t kinds, int nth, bool forEver) {
  static const Disk before = oldDisk();
  FailingWorld lived;
  lived.host.fail(kinds, nth, forEver);
  (lived.*scenario)();
  const bool fired = lived.host.hasFired();
  lived.host.stopFailing();
  lived.closeAll();
  for (const auto& [path, known] : std::map(lived.known))
    expectSoundStore(lived, path, before);
  return fired;
}

class Faults : public ::testing::TestWithParam<uint32_t> {};

TEST_P(Faults, EveryCallFailsInTurn) {
  int fired = 0;
  using W = FailingWorld;
  for (const Scenario scenario : {&W::update, &W::shareAndUpgrade, &W::createAndReplace,
                                  &W::readForeign, &W::liveInMemory, &W::makeBlob}) {
    for (const bool forEver : {false, true}) {
      for (int nth = 1;; ++nth, ++fired) {
        SCOPED_TRACE(testing::Message() << "call " << nth << (forEver ? " and all after it" : ""));
        if (!liveThrough(scenario, GetParam(), nth, forEver) || HasFailure()) break;
      }
    }
  }
  EXPECT_GT(fired, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Faults,
                         ::testing::Values(kAllocateFault, kAcquireFault, kOpenFault, kReadFault,
                                           kWriteFault, kSeekFault, kRemoveFault,
                                           uint32_t{kFileFault}, kMakeConverterFault, kMeasureFault,
                                           kConvertFault));

// ---- depth

void runOnSmallStack(std::function<void()> work) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 64 * 1024), 0);
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// Stores within stores, each with the given name, down to `levels`.
Bytes deepImage(int64_t levels, const char* name) {
  Bytes image(static_cast<size_t>(kHeaderSize + levels * kEntrySize));
  putRecord(image, 0, headerOf(0, kHeaderSize));
  for (int64_t level = 0; level < levels; ++level) {
    const int64_t offset = kHeaderSize + level * kEntrySize;
    const int64_t below = level + 1 < levels ? -offset - kEntrySize : 0;
    putRecord(image, offset, entryOf(level == 0 ? 0 : offset - kEntrySize, 0, 0, below, name));
  }
  return image;
}

TEST(Depth, ADeepTreeIsLoadedWrittenBackAndPurgedOnASmallStack) {
  World w;
  const Bytes image = deepImage(200000, "n");
  w.host.file(U"x.st") = image;
  int32_t status[3] = {1, 1, 1};
  int64_t blobSize = 0;
  runOnSmallStack([&] {
    for (const uint32_t flags : {uint32_t{kRead}, uint32_t{kUpdate}})
      w.instance->openStore(w.instance, nullptr, U"x.st", 4, flags, &status[flags - 1]);
    Store* store = w.cached(U"x.st");
    blobSize = calcBlobSize(store);
    hxcrateCloseStore(store);
    hxcrateCloseAndDeleteStore(store);
    hxcrateCloseStore(hxcrateOpenStoreFromMemory(w.instance, image.data(), image.size(), U"m", 1,
                                                 kRead, &status[2]));
  });
  EXPECT_TRUE(status[0] == kOk && status[1] == kOk && status[2] == kOk);
  EXPECT_EQ(blobSize, static_cast<int64_t>(image.size())) << "all of it has its place";
  EXPECT_EQ(w.blocks(), 1);
}

TEST(Depth, ALongPathIsWalkedOnASmallStack) {
  constexpr int32_t kLevels = 100000;
  World w;
  w.host.file(U"x.st") = deepImage(kLevels, "");
  const std::u32string path(kLevels, U'/');
  int32_t status[3] = {1, 1, 1};
  runOnSmallStack([&] {
    Store* store = hxcrateOpenStore(w.instance, nullptr, U"x.st", 4, kRead, &status[0]);
    if (store == nullptr) return;
    Store* deepest =
        hxcrateOpenStore(w.instance, store, path.data(), kLevels - 2, kRead, &status[1]);
    if (deepest != nullptr) hxcrateCloseStore(deepest);
    hxcrateOpenStore(w.instance, store, path.data(), kLevels, kRead, &status[2]);
    for (Member* level : store->members.buckets) {
      for (; level != nullptr; level = asStore(level)->members.buckets[0])
        status[0] |= asStore(level)->openCount;
    }
    hxcrateCloseAndDeleteStore(store);
  });
  EXPECT_EQ(status[0], kOk) << "or a level on the way stayed open";
  EXPECT_EQ(status[1], kOk);
  EXPECT_EQ(status[2], kNotFound);
}

// ---- threads

// What one thread does in a store that it shares: it reads an item, writes its own ones, opens
// and lists.
void workOften(ExtensionInstance* instance, Store* store, char32_t own) {
  int argument = 0;
  int32_t status = 0, length = 0, kind = 0;
  char32_t name[64] = {};
  for (char32_t round = 0; round < 200; ++round) {
    std::string bytes(2000, ' ');
    ItemHandle* reader = hxcrateOpenItem(instance, store, U"a", 1, kRead, &status);
    for (size_t at = 0; at < bytes.size(); at += 10)
      hxcrateRead(reader, bytes.data() + at, 10, &argument, &status);
    EXPECT_TRUE(bytes == pattern(2000) && hxcrateCloseItem(reader) == 0);
    const char32_t fresh[] = {own, round % 10};
    ItemHandle* writer = hxcrateOpenItem(instance, store, fresh, 2, kMake, &status);
    for (int i = 0; i < 10; ++i)
      hxcrateWrite(writer, "0123456789", 10, &status);
    hxcrateCloseItem(writer);
    hxcrateCloseStore(hxcrateOpenStore(instance, nullptr, U"x.st", 4, kRead, &status));
    hxcrateCloseStore(hxcrateOpenStore(instance, store, U"n", 1, kMake, &status));
    while (hxcrateGetNextMember(store, name, length, name, &length, &kind) == kOk) {
    }
  }
}

TEST(Threads, ReadWriteAndOpenInOneStore) {
  World w;
  Store* store = w.open(U"x.st", kMake);
  hxcrateSetPageSize(store, kPage);
  w.put(store, U"a", pattern(2000));
  std::latch start(4);
  std::vector<std::thread> threads;
  for (const char32_t own : {U'b', U'c', U'd', U'e'}) {
    threads.emplace_back([&, own] {
      start.arrive_and_wait();
      workOften(w.instance, store, own);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  w.closeAll();
  checkImage(w.host.file(U"x.st"));
  EXPECT_EQ(w.get(w.open(U"x.st", kRead), Path{U'e', 9}).size(), 2000u);
}

}  // namespace
}  // namespace hx::fake
