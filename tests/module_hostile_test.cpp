// Files and blobs that nobody wrote: each is opened both ways, and read, listed and updated as far
// as it goes (tests/image_agreement.cpp bounds the work). Trees of any depth, on the smallest
// stack.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <climits>
#include <functional>

#include "blob/create_blob.h"
#include "tests/fuzzed.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

// A file with every kind of record; a page size of 16 keeps it small.
Bytes smallImage() {
  World w;
  w.run(
      "open x UC; page x 16; put x:empty 0; put x:one 10; put x:three 40; open x:n UC;"
      "put x:n/full 32; open x:n/deep UC; close x");
  return w.image("x");
}

TEST(Hostile, EveryFieldOfEveryRecordWithEveryNastyValue) {
  forEachDamage(smallImage(), [](const Bytes& damaged) { expectAgreement(damaged); });
}

TEST(Hostile, EveryNameWithEveryNastyText) {
  const Bytes image = smallImage();
  for (const StoredRecord& record : recordsOf(image)) {
    if (record.kind != 's' && record.kind != 'i') continue;
    for (const std::string text : {"/", "../..", ":\\", "\x01\x7f\xff\n", "one", "deep"}) {
      Bytes damaged = image;
      putText(damaged, static_cast<size_t>(record.offset) + offsetof(Entry, name), text);
      expectAgreement(damaged);
    }
  }
}

TEST(Hostile, EveryLengthInBothByteOrders) {
  const Bytes image = smallImage();
  for (const Bytes& whole : {image, asBigEndian(image)}) {
    for (size_t length = 0; length <= whole.size(); ++length)
      expectAgreement({whole.data(), length});
  }
}

// Three pages of 2^30 bytes, none of which is ever touched.
TEST(Hostile, AnItemOfMoreThanItsLimit) {
  constexpr int64_t kPage = int64_t{1} << 30;
  constexpr auto kSize = static_cast<size_t>(4 * kPage);
  void* room = mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(room, MAP_FAILED);
  auto* blob = static_cast<uint8_t*>(room);
  const auto at = [&](const auto& record, int64_t offset) {
    std::memcpy(blob + offset, &record, sizeof(record));
  };
  at(headerOf(-kPage, 40), 0);
  at(entryOf(0, 0, 0, 136, "m"), 40);
  at(entryOf(40, 0, 0, 232, "a"), 136);
  for (const int64_t next : {256, 280, 0})
    at(DataChunk{kPage, 1 << 30, 1 << 30, next}, next == 0 ? 280 : next - 24);
  World w;
  Store* store =
      w.instance->openStoreFromMemory(w.instance, blob, kSize, U"m", 1, kRead, &w.status);
  ASSERT_NE(store, nullptr) << w.status;
  EXPECT_EQ(w.instance->openItem(w.instance, store, U"a", 1, kRead, &w.status), nullptr);
  EXPECT_EQ(w.status, kUnreadable);
  store->closeStore(store);
  store = w.instance->openStoreFromMemory(w.instance, blob, UINT64_MAX, U"m", 1, kRead, &w.status);
  EXPECT_EQ(w.status, kOk) << "a blob of any size";
  if (store != nullptr) store->closeStore(store);
  munmap(room, kSize);
}

// Stores within stores; with `twice`, each leads to the next one two ways.
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

TEST(Hostile, SubTreesThatDoubleAtEachLevel) {
  expectAgreement(deepImage(60, "n", true));
}

void runOnSmallestStack(std::function<void()> work) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  const size_t size = HX_SANITIZED != 0 ? 128 * 1024 : static_cast<size_t>(PTHREAD_STACK_MIN);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, size), 0);
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

void liveInDeepTree(int64_t levels) {
  World w;
  const Bytes image = deepImage(levels, "n", false);
  w.image("x") = image;
  int32_t status[3] = {1, 1, 1};
  int64_t blobSize = 0;
  runOnSmallestStack([&] {
    for (const uint32_t flags : {uint32_t{kRead}, uint32_t{kUpdate}})
      w.instance->openStore(w.instance, nullptr, U"x", 1, flags, &status[flags - 1]);
    Store* store = w.find("x");
    blobSize = calcBlobSize(store);
    store->closeStore(store);
    store->closeStore(store);
    store->closeAndDeleteStore(store);
    store = w.instance->openStoreFromMemory(w.instance, image.data(), image.size(), U"m", 1, kRead,
                                            &status[2]);
    store->closeStore(store);
  });
  EXPECT_TRUE(status[0] == kOk && status[1] == kOk && status[2] == kOk);
  EXPECT_EQ(blobSize, static_cast<int64_t>(image.size())) << "all of it has its place";
  EXPECT_EQ(w.host.count("write"), 2) << "nothing but the header";
}

TEST(Hostile, ADeepTreeIsLoadedWrittenBackAndPurgedOnTheSmallestStack) {
  liveInDeepTree(100'000);
}

TEST(Hostile, DISABLED_AMillionLevels) {
  liveInDeepTree(1'000'000);
}

TEST(Hostile, ALongPathIsWalkedOnTheSmallestStack) {
  constexpr int32_t kLevels = 100000;
  World w;
  w.image("x") = deepImage(kLevels, "", false);
  const std::u32string path(kLevels, U'/');
  int32_t status[2] = {1, 1};
  int32_t left = 0;
  runOnSmallestStack([&] {
    Store* store = w.instance->openStore(w.instance, nullptr, U"x", 1, kRead, &status[0]);
    if (store == nullptr) return;
    Store* deepest =
        w.instance->openStore(w.instance, store, path.data(), kLevels - 2, kRead, &status[0]);
    if (deepest != nullptr) deepest->closeStore(deepest);
    w.instance->openStore(w.instance, store, path.data(), kLevels, kRead, &status[1]);
    for (Member* level = store->members.buckets[0]; level != nullptr;
         level = asStore(level)->members.buckets[0])
      left |= asStore(level)->openCount;
    store->closeAndDeleteStore(store);
  });
  EXPECT_TRUE(status[0] == kOk && status[1] == kNotFound);
  EXPECT_EQ(left, 0) << "a level on the way stayed open";
}

}  // namespace
}  // namespace hx::fake
