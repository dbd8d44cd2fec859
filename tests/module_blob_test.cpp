// Blobs: stores serialised into one buffer, and stores opened over one.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>

#include "blob/create_blob.h"
#include "blob/open_blob.h"
#include "store/close_store.h"
#include "store/page_size.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

class BlobTest : public ModuleTest {
 protected:
  Bytes blobOf(Store* store) {
    Pool* pool = host.makePool();
    uint64_t size = 99;
    const auto* blob = static_cast<uint8_t*>(store->createBlobFromStore(store, &size, pool));
    Bytes bytes;
    if (blob != nullptr) bytes.assign(blob, blob + size);
    EXPECT_EQ(FakeHost::blocksIn(pool), blob == nullptr ? 0 : 1);
    pool->head.destroy(pool);
    return bytes;
  }
  Store* makeTree() {
    Store* store = open(U"m", kMake | kNoFile);
    hxcrateSetPageSize(store, 16);
    for (const int32_t size : {0, 1, 15, 16, 17, 40})
      put(store, std::u32string(1, static_cast<char32_t>('A' + size)), pattern(size));
    Store* nested = openIn(store, U"n", kMake);
    put(nested, U"y:1", pattern(33));
    put(nested, U"", "nameless");
    openIn(nested, U"deep", kMake);
    return store;
  }
};

TEST_F(BlobTest, TenBytesByteForByte) {
  Store* store = open(U"/d/m", kMake | kNoFile);
  put(store, U"a", "0123456789");
  Bytes wanted(4376);
  putRecord(wanted, 0, headerOf(0, 40));
  putRecord(wanted, 40, entryOf(0, 0, 0, 136, "m"));
  putRecord(wanted, 136, entryOf(40, 0, 0, 232, "a"));
  putRecord(wanted, 232, DataChunk{280, 4096, 10, 0});
  putText(wanted, 280, "0123456789");
  EXPECT_EQ(blobOf(store), wanted);
  Store* opened = openBlob(wanted);
  const ItemHandle* reader = openItem(opened, U"a", kRead);
  EXPECT_EQ(reader->page->buffer, wanted.data() + 280) << "no copy";
  EXPECT_TRUE(opened->flags == kMemoryBacked && opened->file == wanted.data());
  EXPECT_TRUE(opened->blobSize == 4376 && reader->item->write == nullptr);
}

// A second page that the pool refuses leaves the first one full and the last.
TEST_F(BlobTest, AnItemThatFilledAPageHasItsFirstRecordBeforeTheTopEntry) {
  for (const int nth : {0, 6}) {
    Store* store = open(U"m", kMake | kReplace | kNoFile);
    host.fail(kAllocateFault, nth);
    EXPECT_EQ(put(store, U"a", pattern(4096)), 4096);
    host.stopFailing();
    const Bytes blob = blobOf(store);
    checkImage(blob);
    EXPECT_EQ(contents(openBlob(blob)).at(U"a"), pattern(4096));
    close(blobStores.back());
    EXPECT_TRUE(blobOf(openIn(store, U"n", kMake | kNoFile)).empty()) << "only of whole stores";
    close(store);
    if (nth != 0) continue;
    EXPECT_EQ(recordAt<Header>(blob, 0).directoryOffset, 64);
    EXPECT_EQ(recordAt<Entry>(blob, entryOffset(blob, "a")).firstLink, 40);
    const auto last = recordAt<DataChunk>(blob, recordAt<DataChunk>(blob, 40).next);
    EXPECT_TRUE(last.used == 0 && last.capacity == 4096 && last.next == 0);
  }
}

TEST_F(BlobTest, AStoreGrowsFromBlobToBlobAndIntoItsFile) {
  Store* store = makeTree();
  const Bytes first = blobOf(store);
  checkImage(first);
  EXPECT_EQ(blobOf(store), first) << "a second one is the same";
  put(store, U"A", "no more empty");
  put(store, U"late", pattern(100));
  const Bytes second = blobOf(store);
  checkImage(second);
  const Contents wanted = contents(store);
  EXPECT_EQ(contents(openBlob(second)), wanted);
  close(store);
  close(open(U"m", kUpdate));
  checkImage(host.file(U"m"));
  EXPECT_EQ(reloaded(U"m"), wanted);
  EXPECT_TRUE(blobOf(store).empty()) << "its pages may be in the file alone";
}

TEST_F(BlobTest, ABlobIsAFileAndAFileIsABlob) {
  const Contents wanted = contents(makeTree());
  const Bytes blob = blobOf(cached(U"m"));
  for (const Bytes& image : {blob, asBigEndian(blob)}) {
    host.file(U"x.st") = image;
    EXPECT_EQ(reloaded(U"x.st"), wanted);
    Store* opened = openBlob(image);
    EXPECT_EQ(contents(opened), wanted);
    EXPECT_EQ(Path(opened->name, 4), U"blob") << "the caller's name";
    blobStores.clear();
    hxcrateCloseAndDeleteStore(opened);
    EXPECT_EQ(host.liveConverters, 0);
  }
  EXPECT_TRUE(host.hasFile(U"x.st"));
}

TEST_F(BlobTest, NothingCanBeWrittenIntoABlob) {
  const Bytes blob = blobOf(makeTree());
  const Bytes before = blob;
  Store* store = openBlob(blob);
  for (Store* parent : {store, openIn(store, U"n", kRead)}) {
    EXPECT_TRUE(openItem(parent, U"new", kMake) == nullptr && status == kContradiction);
    EXPECT_TRUE(openIn(parent, U"new", kMake) == nullptr && status == kContradiction);
    EXPECT_TRUE(blobOf(parent).empty());
  }
  EXPECT_TRUE(openItem(store, U"B", kUpdate) == nullptr && status == kContradiction);
  EXPECT_EQ(read(openItem(store, U"B", 0), 1), "");
  EXPECT_EQ(openItem(store, U"i", 0), nullptr) << "more than a page needs kRead";
  ItemHandle* reader = openItem(store, U"i", kRead);
  close(store);
  EXPECT_TRUE(read(reader, 40).empty() && status == kFileNotOpen) << "the blob may be gone";
  EXPECT_EQ(blob, before);
}

TEST_F(BlobTest, StatusesOfAnOpen) {
  const Bytes blob = blobOf(makeTree());
  Bytes empty(40);
  putRecord(empty, 0, headerOf(0, 0));
  struct Case {
    Bytes blob;
    uint32_t flags;
    int32_t status;
  };
  for (const Case& c : {Case{blob, kNoFile | kCreate, kOk},
                        {Bytes(39), kUpdate, kContradiction},
                        {blob, kReplace, kContradiction},
                        {blob, kRead | kExclusive, kContradiction},
                        {Bytes(39), kRead, kUnreadable},
                        {Bytes(), kRead, kUnreadable},
                        {empty, kRead, kOk}}) {
    const int64_t before = blocks();
    close(openBlob(c.blob, c.flags));
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(blocks(), before) << "a closed or refused blob leaves nothing";
  }
}

// The end of `size` bytes or more, behind which nothing can be read. They stay mapped.
uint8_t* mapEdge(size_t size) {
  constexpr size_t kGuard = 4096;
  const size_t room = (size / kGuard + 1) * kGuard;
  void* at =
      mmap(nullptr, room + kGuard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uint8_t* end = static_cast<uint8_t*>(at) + room;
  mprotect(end, kGuard, PROT_NONE);
  return end;
}

TEST_F(BlobTest, DamageNeverLeadsOutOfTheBuffer) {
  const Bytes blob = blobOf(makeTree());
  uint8_t* const edge = mapEdge(blob.size());
  const auto use = [&](const Bytes& bytes) {
    uint8_t* at = std::copy(bytes.begin(), bytes.end(), edge - bytes.size()) - bytes.size();
    Store* store =
        hxcrateOpenStoreFromMemory(instance, at, bytes.size(), U"blob", 4, kRead, &status);
    EXPECT_EQ(status, store == nullptr ? kUnreadable : kOk);
    if (store == nullptr) return;
    blobStores.push_back(store);
    list(store);
    contents(store);
    close(store);
  };
  forEachDamage(blob, use);
  for (size_t length = 0; length <= blob.size(); ++length)
    use(Bytes(blob.begin(), blob.begin() + static_cast<int64_t>(length)));
}

}  // namespace
}  // namespace hx::fake
