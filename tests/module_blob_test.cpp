// Blobs: stores serialised into one buffer, and stores opened over one.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>

#include "blob/create_blob.h"
#include "blob/open_blob.h"
#include "store/close_store.h"
#include "store/page_size.h"
#include "store/store_path.h"
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

TEST_F(BlobTest, AnEmptyStoreByteForByte) {
  Bytes wanted(136);
  putRecord(wanted, 0, headerOf(0, 40));
  putRecord(wanted, 40, entryOf(0, 0, 0, 0, "m"));
  EXPECT_EQ(blobOf(open(U"/d/m", kMake | kNoFile)), wanted);
  std::memset(wanted.data() + 72, 0, kStoredNameLength);
  EXPECT_EQ(blobOf(open(U"ends/", kMake | kNoFile)), wanted);
}

TEST_F(BlobTest, TenBytesByteForByte) {
  Store* store = open(U"m", kMake | kNoFile);
  put(store, U"a", "0123456789");
  Bytes wanted(4376);
  putRecord(wanted, 0, headerOf(0, 40));
  putRecord(wanted, 40, entryOf(0, 0, 0, 136, "m"));
  putRecord(wanted, 136, entryOf(40, 0, 0, 232, "a"));
  putRecord(wanted, 232, DataChunk{280, 4096, 10, 0});
  std::memcpy(wanted.data() + 280, "0123456789", 10);
  EXPECT_EQ(blobOf(store), wanted);
  EXPECT_EQ(blobOf(store), wanted) << "a second one is the same";
  const Store* opened = openBlob(wanted);
  ItemHandle* reader = openItem(blobStores.back(), U"a", kRead);
  EXPECT_EQ(reader->page->buffer, wanted.data() + 280) << "no copy";
  EXPECT_EQ(reader->item->size, 10);
  EXPECT_TRUE(opened->flags == kMemoryBacked && opened->file == wanted.data());
  EXPECT_TRUE(opened->blobSize == 4376 && opened->openCount == 1 && opened->fileEnd == 0);
  EXPECT_EQ(reader->item->write, nullptr);
}

TEST_F(BlobTest, AnItemThatFilledAPageHasItsFirstRecordBeforeTheTopEntry) {
  Store* store = open(U"m", kMake | kNoFile);
  write(openItem(store, U"a", kMake), pattern(4096));
  const Bytes blob = blobOf(store);
  checkImage(blob);
  EXPECT_EQ(recordAt<Header>(blob, 0).directoryOffset, 64);
  EXPECT_EQ(recordAt<Entry>(blob, entryOffset(blob, "a")).firstLink, 40);
  const auto last = recordAt<DataChunk>(blob, recordAt<DataChunk>(blob, 40).next);
  EXPECT_TRUE(last.used == 0 && last.capacity == 4096 && last.next == 0);
}

TEST_F(BlobTest, AFullLastPageKeepsItsBytes) {
  Store* store = open(U"m", kMake | kNoFile);
  host.fail(kAllocateFault, 6);
  EXPECT_EQ(put(store, U"a", pattern(9000)), 4096);
  EXPECT_EQ(contents(openBlob(blobOf(store))).at(U"a"), pattern(4096));
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
    char32_t path[10];
    int32_t length = 10;
    EXPECT_TRUE(hxcratePath(parent, path, &length) == kOk && length == 0);
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

TEST_F(BlobTest, StoresWithoutABlob) {
  Store* store = open(U"m", kMake | kNoFile);
  EXPECT_TRUE(blobOf(openIn(store, U"n", kMake | kNoFile)).empty());
  Pool* pool = host.makePool();
  uint64_t size = 99;
  Store* inFile = open(U"x.st", kMake);
  EXPECT_TRUE(inFile->createBlobFromStore(inFile, &size, pool) == nullptr && size == 99);
  host.fail(kAllocateFault, 1);
  EXPECT_EQ(store->createBlobFromStore(store, &size, pool), nullptr);
  EXPECT_EQ(size, 40u + 2 * 96u) << "the size that was asked for";
  pool->head.destroy(pool);
}

TEST_F(BlobTest, StatusesOfAnOpen) {
  const Bytes blob = blobOf(makeTree());
  Bytes atEnd = blob;
  setField(atEnd, 0, &Header::directoryOffset, static_cast<int64_t>(blob.size()));
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
                        {atEnd, kRead, kUnreadable},
                        {empty, kRead, kOk}}) {
    const int64_t before = blocks();
    close(openBlob(c.blob, c.flags));
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(blocks(), before) << "a closed or refused blob leaves nothing";
  }
}

// Bytes that end where memory that can't be read begins.
class EdgeBuffer {
 public:
  explicit EdgeBuffer(size_t most) : room_((most / kPage + 1) * kPage) {
    void* at =
        mmap(nullptr, room_ + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = static_cast<uint8_t*>(at);
    mprotect(base_ + room_, kPage, PROT_NONE);
  }
  ~EdgeBuffer() { munmap(base_, room_ + kPage); }
  EdgeBuffer(const EdgeBuffer&) = delete;
  EdgeBuffer& operator=(const EdgeBuffer&) = delete;

  const uint8_t* fill(const Bytes& bytes) {
    uint8_t* at = base_ + room_ - bytes.size();
    std::copy(bytes.begin(), bytes.end(), at);
    return at;
  }

 private:
  static constexpr size_t kPage = 4096;
  size_t room_;
  uint8_t* base_;
};

TEST_F(BlobTest, DamageNeverLeadsOutOfTheBuffer) {
  const Bytes blob = blobOf(makeTree());
  EdgeBuffer edge(blob.size());
  const auto use = [&](const Bytes& bytes) {
    const uint8_t* at = edge.fill(bytes);
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
