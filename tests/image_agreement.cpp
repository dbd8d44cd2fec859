#include "tests/fuzzed.h"

#include <sys/mman.h>

#include <algorithm>
#include <deque>

#include "store/name.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

// Hostile trees may share one chain of pages between all their items, so that reading everything
// takes the product of both; what is looked at is bounded here, the same on both sides.
constexpr int kMostItems = 400;
constexpr int64_t kMostBytes = 1 << 20;

// A page buffer that the fuzzer's memory limit allows.
constexpr int32_t kLargestPage = 1 << 24;

// Room for an image right before memory that can't be touched.
std::span<const uint8_t> putAtEdge(std::span<const uint8_t> image) {
  constexpr size_t kRoom = size_t{1} << 20;
  constexpr size_t kGuard = 1 << 16;
  static uint8_t* const room = [] {
    void* at =
        mmap(nullptr, kRoom + kGuard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<uint8_t*>(at) + kRoom, kGuard, PROT_NONE);
    return static_cast<uint8_t*>(at);
  }();
  uint8_t* start = room + kRoom - std::min(image.size(), kRoom);
  std::copy_n(image.data(), std::min(image.size(), kRoom), start);
  return {start, room + kRoom};
}

// Besides what is read, a record in memory takes below ten times its ENTRY, and its name four
// times.
void expectLittleWork(const World& w, uint64_t imageSize, uint64_t mostReads, uint64_t pageBytes) {
  EXPECT_LE(static_cast<uint64_t>(w.host.count("read")), mostReads) << "too much work";
  EXPECT_LE(w.host.mostBytes, 16 * imageSize + 8192 + pageBytes);
  for (const auto& [what, offset, length] : w.host.events) {
    const bool isInside = offset + length <= static_cast<int64_t>(imageSize);
    EXPECT_TRUE(isInside || offset < kHeaderSize) << what << " at " << offset;
  }
}

Store* openFile(World& w, std::span<const uint8_t> image) {
  w.image("x").assign(image.begin(), image.end());
  Store* store = w.openStore(nullptr, U"x", "R");
  expectLittleWork(w, image.size(), 2 * (image.size() / kEntrySize) + 4, 0);
  return store;
}

Store* openBlob(World& w, std::span<const uint8_t> image) {
  Store* store = w.openBlob(image.data(), image.size(), U"x");
  expectLittleWork(w, image.size(), 0, 0);
  return store;
}

// Everything that can be seen of an item: how its open went, its bytes and how reading ended.
std::string readItem(World& w, Store* store, const Member* member, uint64_t imageSize) {
  w.host.events.clear();
  ItemHandle* handle =
      w.instance->openItem(w.instance, store, member->name, member->nameLength, kRead, &w.status);
  if (handle == nullptr) return "open " + std::to_string(w.status);
  std::string bytes(static_cast<size_t>(std::min<int64_t>(handle->item->size, kMostBytes)), 0);
  const auto length = static_cast<int32_t>(bytes.size());
  bytes.resize(handle->item->read(handle, bytes.data(), length, nullptr, &w.status));
  EXPECT_EQ(handle->item->close(handle), 0);
  // A page is at least a record and a byte; walked once, then read as record and bytes.
  expectLittleWork(w, imageSize, 3 * (imageSize / (kChunkSize + 1)) + 4,
                   3 * static_cast<uint64_t>(store->root->pageSize));
  return "read " + std::to_string(w.status) + " " + bytes;
}

// Compares two trees member by member. Neither is walked by recursion: they may be deep.
void expectSameTree(World& a, Store* topOfA, World& b, Store* topOfB, uint64_t imageSize) {
  std::deque<std::pair<Store*, Store*>> stores = {{topOfA, topOfB}};
  int items = 0;
  for (; !stores.empty(); stores.pop_front()) {
    const auto [inA, inB] = stores.front();
    const std::vector<Member*> members = chained(inA->members);
    const std::vector<Member*> others = chained(inB->members);
    ASSERT_EQ(members.size(), others.size());
    for (size_t i = 0; i < members.size(); ++i) {
      ASSERT_TRUE(equalNames(nameOf(members[i]), nameOf(others[i])));
      ASSERT_EQ(members[i]->kind, others[i]->kind);
      if (members[i]->kind == kStoreKind) {
        stores.emplace_back(asStore(members[i]), asStore(others[i]));
      } else if (++items <= kMostItems) {
        ASSERT_EQ(readItem(a, inA, members[i], imageSize), readItem(b, inB, others[i], imageSize));
      }
    }
  }
}

// Whatever can be opened for update is written to; what can't stays as it is.
void update(std::span<const uint8_t> image) {
  World w;
  Bytes& file = w.image("x");
  file.assign(image.begin(), image.end());
  w.tryToRun("open x U; list x; put x:three 50; put x:new 50; put x:n/full 1; open x:deep UC");
  const bool isOpen = w.find("x") != nullptr;
  w.closeAll();
  EXPECT_TRUE(isOpen || std::equal(file.begin(), file.end(), image.begin(), image.end()));
}

}  // namespace

void expectAgreement(std::span<const uint8_t> image) {
  const std::span<const uint8_t> bytes = putAtEdge(image);
  World onFile;
  World inBlob;
  Store* file = openFile(onFile, bytes);
  Store* blob = openBlob(inBlob, bytes);
  const bool isReadable = file != nullptr && file->pageSize <= kLargestPage;
  if (isReadable && blob != nullptr) {
    EXPECT_EQ(onFile.status, kOk);
    expectSameTree(onFile, file, inBlob, blob, bytes.size());
  } else if (bytes.size() < sizeof(Header)) {
    EXPECT_TRUE(onFile.status == kNotFound && inBlob.status == kUnreadable);
  } else {
    // A file whose directory is damaged opens in part, a blob does not. What the part holds is
    // read against itself.
    EXPECT_EQ(onFile.status, inBlob.status);
    if (isReadable) expectSameTree(onFile, file, onFile, file, bytes.size());
  }
  if (blob != nullptr) blob->closeStore(blob);
  if (isReadable) update(bytes);
}

}  // namespace hx::fake
