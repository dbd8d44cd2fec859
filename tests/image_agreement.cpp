#include "tests/image_agreement.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <vector>

#include "file/format.h"
#include "module/entry.h"
#include "store/name.h"
#include "store/status.h"
#include "tests/fake_host.h"

namespace hx::fake {
namespace {

// Hostile trees may share one chain of pages between all their items, so that reading everything
// takes the product of both; what is looked at is bounded here, the same on both sides.
constexpr int kMostItems = 400;
constexpr int64_t kMostBytes = 1 << 20;

// A page buffer that the fuzzer's memory limit allows.
constexpr int32_t kLargestPage = 1 << 24;

class Side {
 public:
  Side() {
    hxmodent(&host_);
    instance_ = hx::hxcrate();
  }
  ~Side() { instance_->destroy(instance_); }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  Store* openFile(std::span<const uint8_t> image) {
    host_.file(U"x.st").assign(image.begin(), image.end());
    Store* store = instance_->openStore(instance_, nullptr, U"x.st", 4, kRead, &status);
    expectFewReads(2 * (image.size() / kEntrySize) + 4);
    return store;
  }

  Store* openBlob(std::span<const uint8_t> image) {
    return instance_->openStoreFromMemory(instance_, image.data(), image.size(), U"x.st", 4, kRead,
                                          &status);
  }

  // Everything that can be seen of an item: how its open went, its bytes and how reading ended.
  std::string readItem(Store* store, const Member* member, uint64_t imageSize) {
    host_.events.clear();
    ItemHandle* handle =
        instance_->openItem(instance_, store, member->name, member->nameLength, kRead, &status);
    if (handle == nullptr) return "open " + std::to_string(status);
    std::string bytes(static_cast<size_t>(std::min<int64_t>(handle->item->size, kMostBytes)), 0);
    const uint32_t count = handle->item->read(handle, bytes.data(),
                                              static_cast<int32_t>(bytes.size()), nullptr, &status);
    bytes.resize(count);
    EXPECT_EQ(handle->item->close(handle), 0);
    // A page is at least a record and a byte; walked once, then read as record and bytes.
    expectFewReads(3 * (imageSize / (kChunkSize + 1)) + 4);
    return "read " + std::to_string(status) + " " + bytes;
  }

  int32_t status = kOk;

 private:
  void expectFewReads(uint64_t most) const {
    EXPECT_LE(static_cast<uint64_t>(host_.count("read")), most) << "too much work";
  }

  FakeHost host_;
  ExtensionInstance* instance_;
};

std::vector<Member*> membersOf(const Store* store) {
  std::vector<Member*> members;
  for (Member* member : store->members.buckets) {
    for (; member != nullptr; member = member->next)
      members.push_back(member);
  }
  return members;
}

// Compares two trees member by member. Neither is walked by recursion: they may be deep.
void expectSameTree(Side& fileSide, Store* fileTop, Side& blobSide, Store* blobTop,
                    uint64_t imageSize) {
  std::deque<std::pair<Store*, Store*>> stores = {{fileTop, blobTop}};
  int items = 0;
  for (; !stores.empty(); stores.pop_front()) {
    const auto [inFile, inBlob] = stores.front();
    const std::vector<Member*> members = membersOf(inFile);
    const std::vector<Member*> others = membersOf(inBlob);
    ASSERT_EQ(members.size(), others.size());
    for (size_t i = 0; i < members.size(); ++i) {
      Member* a = members[i];
      Member* b = others[i];
      ASSERT_TRUE(equalNames(nameOf(a), nameOf(b)) && a->kind == b->kind);
      if (a->kind == kStoreKind) {
        stores.emplace_back(asStore(a), asStore(b));
      } else if (++items <= kMostItems) {
        ASSERT_EQ(fileSide.readItem(inFile, a, imageSize), blobSide.readItem(inBlob, b, imageSize));
      }
    }
  }
}

}  // namespace

void expectAgreement(std::span<const uint8_t> image) {
  // A copy of its own, so that a sanitizer sees every byte read behind its end.
  const std::unique_ptr<uint8_t[]> copy(new uint8_t[image.size()]);
  std::copy(image.begin(), image.end(), copy.get());
  const std::span<const uint8_t> bytes(copy.get(), image.size());
  Side fileSide;
  Side blobSide;
  Store* file = fileSide.openFile(bytes);
  Store* blob = blobSide.openBlob(bytes);
  if (file != nullptr && blob != nullptr && file->pageSize <= kLargestPage) {
    EXPECT_EQ(fileSide.status, kOk);
    expectSameTree(fileSide, file, blobSide, blob, bytes.size());
  } else if (bytes.size() < sizeof(Header)) {
    EXPECT_EQ(fileSide.status, kNotFound);
    EXPECT_EQ(blobSide.status, kUnreadable);
  } else {
    // A file whose directory is damaged opens in part, a blob does not. What the part holds is
    // read against itself.
    EXPECT_EQ(fileSide.status, blobSide.status);
    const bool isPart = file != nullptr && file->pageSize <= kLargestPage;
    if (isPart) expectSameTree(fileSide, file, fileSide, file, bytes.size());
  }
  if (file != nullptr) file->closeStore(file);
  if (blob != nullptr) blob->closeStore(blob);
}

}  // namespace hx::fake
