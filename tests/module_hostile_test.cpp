// Files and blobs that nobody wrote: each is opened both ways, and read, listed and updated as far
// as it goes (tests/fuzzed.cpp bounds the work). Trees of any depth, on the smallest stack.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <functional>

#include "module/exports.h"
#include "tests/fuzzed.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

// A file with every kind of record; a page size of 16 keeps it small.
Bytes smallImage() {
  World w;
  w.run(
      "open x UC; pagesize x 16; write x:empty 0; write x:one 10; write x:three 40; open x:n UC;"
      "write x:n/full 32; open x:n/deep UC; close x");
  return w.image("x");
}

TEST(Hostile, EveryFieldOfEveryRecordWithEveryNastyValue) {
  forEachDamage(smallImage(), [](const Bytes& damaged) { expectAgreement(damaged); });
}

TEST(Hostile, EveryNameWithEveryNastyText) {
  const Bytes image = smallImage();
  for (const auto& [kind, offset] : recordsOf(image)) {
    if (kind != 'e') continue;
    for (const std::string text : {"/", "../..", ":\\", "\x01\x7f\xff\n", "one", "deep"}) {
      Bytes damaged = image;
      text.copy(reinterpret_cast<char*>(&damaged[0]) + offset + offsetof(Entry, name), text.size());
      expectAgreement(damaged);
    }
  }
}

TEST(Hostile, EveryLengthInBothByteOrders) {
  const Bytes image = smallImage();
  for (const Bytes& whole : {image, asBigEndian(image)}) {
    for (size_t length = 0; length <= whole.size(); ++length)
      expectAgreement(Bytes(whole.data(), whole.data() + length));
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
  Store* store = w.openBlob(blob, kSize, U"m");
  ASSERT_NE(store, nullptr) << w.status;
  EXPECT_EQ(w.openItem(store, U"a", "R"), nullptr);
  EXPECT_EQ(w.status, kUnreadable);
  store->closeStore(store);
  store = w.openBlob(blob, UINT64_MAX, U"m");
  ASSERT_NE(store, nullptr) << "a blob of any size";
  store->closeStore(store);
  munmap(room, kSize);
}

TEST(Hostile, SubTreesThatDoubleAtEachLevel) {
  expectAgreement(deepImage(60, "", true));
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

void liveInDeepTree(int32_t levels) {
  World w;
  const Bytes image = deepImage(levels, "");
  w.image("x") = image;
  Store* deepest = nullptr;
  int64_t blobSize = 0;
  int32_t left = 0;
  runOnSmallestStack([&] {
    Store* store = w.openStore(nullptr, U"x", "R");
    deepest = w.openStore(store, std::u32string(static_cast<size_t>(levels) - 2, U'/'), "R");
    if (deepest != nullptr) deepest->closeStore(deepest);
    w.openStore(store, std::u32string(static_cast<size_t>(levels), U'/'), "R");
    for (Member* at = store->members.buckets[0]; at; at = asStore(at)->members.buckets[0])
      left |= asStore(at)->openCount;
    w.openStore(nullptr, U"x", "U");
    blobSize = exported::calcBlobSize(store);
    store->closeStore(store);
    store->closeStore(store);
    store->closeAndDeleteStore(store);
    store = w.openBlob(image.data(), image.size(), U"m");
    store->closeStore(store);
  });
  EXPECT_NE(deepest, nullptr);
  EXPECT_EQ(left, 0) << "a level on the way stayed open";
  EXPECT_EQ(blobSize, static_cast<int64_t>(image.size())) << "all of it has its place";
  EXPECT_EQ(w.host.count("write"), 2) << "nothing but the header";
}

// Walked by a path, loaded, written back and purged.
TEST(Hostile, ADeepTreeOnTheSmallestStack) {
  liveInDeepTree(100'000);
}

TEST(Hostile, DISABLED_AMillionLevels) {
  liveInDeepTree(1'000'000);
}

}  // namespace
}  // namespace hx::fake
