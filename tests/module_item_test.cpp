// Items: their pages, readers that share them, and the writer that appends.
#include <gtest/gtest.h>

#include "item/write_item.h"
#include "store/page_size.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

constexpr int32_t kPage = 4096;

class ItemTest : public ModuleTest {
 protected:
  // A closed and reopened store with an item `a`.
  Store* makeReadable(const std::string& bytes) {
    put(open(U"x.st", kMake), U"a", bytes);
    closeAll();
    return open(U"x.st", kRead);
  }
  int pagesInMemory(const ItemHandle* handle) {
    int count = 0;
    for (const PageBuf* page = handle->item->firstPage; page != nullptr; page = page->next)
      ++count;
    return count;
  }
};

void expectChain(const Bytes& image, int64_t size, int32_t pageSize) {
  checkImage(image);
  int64_t offset = recordAt<Entry>(image, entryOffset(image, "a")).firstLink;
  for (int64_t left = size; offset != 0; left -= pageSize) {
    const auto chunk = recordAt<DataChunk>(image, offset);
    EXPECT_EQ(chunk.used, left < pageSize ? left : pageSize);
    EXPECT_EQ(chunk.next != 0, left >= pageSize) << "a full page has a successor";
    offset = chunk.next;
  }
}

// Writes an item in pieces, adds more in a second session, and reads it in pieces.
void liveAcrossPages(int32_t pageSize, int32_t size, int32_t piece, uint32_t storeFlags) {
  World w;
  Store* store = w.open(U"x.st", kMake | storeFlags);
  hxcrateSetPageSize(store, pageSize);
  const std::string bytes = pattern(size + 3);
  ItemHandle* writer = w.openItem(store, U"a", kMake);
  for (int32_t at = 0; at < size; at += piece)
    w.write(writer, pattern(size).substr(static_cast<size_t>(at), static_cast<size_t>(piece)));
  EXPECT_TRUE(writer->position == size && writer->item->size == size);
  EXPECT_EQ(writer->page->index, size / pageSize) << "never at the end of a full page";
  w.closeAll();
  if (storeFlags == 0) expectChain(w.host.file(U"x.st"), size, pageSize);
  writer = w.openItem(w.open(U"x.st", kUpdate | storeFlags), U"a", kUpdate);
  EXPECT_EQ(writer->position, size);
  EXPECT_EQ(w.write(writer, bytes.substr(static_cast<size_t>(size))), 3);
  w.closeAll();
  if (storeFlags == 0) expectChain(w.host.file(U"x.st"), size + 3, pageSize);
  ItemHandle* reader = w.openItem(w.open(U"x.st", kRead), U"a", kRead);
  std::string all;
  while (all.size() < bytes.size() && w.status == kOk)
    all += w.read(reader, piece);
  EXPECT_EQ(all, bytes);
}

TEST(Items, SizesAroundPageBoundaries) {
  for (const int32_t pageSize : {1, 2, 7, 4096, 8192}) {
    for (const int32_t size : {0, 1, pageSize - 1, pageSize, pageSize + 1, 2 * pageSize}) {
      for (const int32_t piece : {1, 3, pageSize, 5 * pageSize}) {
        if (size / piece > 100) continue;
        SCOPED_TRACE(testing::Message() << pageSize << " " << size << " " << piece);
        liveAcrossPages(pageSize, size, piece, 0);
        liveAcrossPages(pageSize, size, piece, kNoFile);
      }
    }
  }
}

TEST_F(ItemTest, AWriterStreamsButAMemoryStoreKeepsEveryPage) {
  ItemHandle* writer = openItem(open(U"x.st", kMake), U"a", kMake);
  for (int page = 1; page <= 3; ++page) {
    write(writer, pattern(kPage));
    EXPECT_TRUE(pagesInMemory(writer) == 1 && writer->page->index == page);
    EXPECT_EQ(host.count("write", kPage), page) << "the full page is in the file at once";
  }
  writer = openItem(open(U"m", kMake | kNoFile), U"a", kMake);
  write(writer, pattern(3 * kPage));
  for (const PageBuf* page = writer->item->firstPage; page != nullptr; page = page->next)
    EXPECT_EQ(page->useCount, page == writer->page ? 1 : 0);
  close(writer);
  ItemHandle* reader = openItem(cached(U"m"), U"a", kRead);
  EXPECT_TRUE(read(reader, 3 * kPage) == pattern(3 * kPage) && pagesInMemory(reader) == 4);
}

TEST_F(ItemTest, ReadersAtDifferentSpeeds) {
  const std::string bytes = pattern(4 * kPage);
  Store* store = makeReadable(bytes);
  const int64_t before = blocks();
  ItemHandle* slow = openItem(store, U"a", kRead);
  ItemHandle* fast = openItem(store, U"a", kRead);
  read(fast, 2 * kPage + 5);
  EXPECT_EQ(pagesInMemory(fast), 2) << "page 1 is dropped behind it";
  EXPECT_EQ(read(slow, 4 * kPage), bytes);
  EXPECT_EQ(host.count("read", kPage), 3 + 2) << "0, 1, 2; and 1 and 3 for the slow one";
  ItemHandle* late = openItem(store, U"a", kRead);
  EXPECT_TRUE(late->page->index == 0 && late->item->firstPage == late->page);
  for (const uint32_t kind : {kAllocateFault, kReadFault}) {
    read(late, kPage);
    host.fail(kind, 2);
    EXPECT_TRUE(openItem(store, U"a", kRead) == nullptr && host.hasFired()) << "without page 0";
  }
  EXPECT_EQ(read(late, 4 * kPage), bytes.substr(2 * kPage));
  close(late);
  EXPECT_EQ(read(fast, 4 * kPage), bytes.substr(2 * kPage + 5));
  closeAll();
  EXPECT_EQ(blocks(), before) << "the last close drops every page";
}

TEST_F(ItemTest, ReadersOrOneWriter) {
  Store* store = open(U"x.st", kMake);
  put(store, U"a", pattern(9000));
  for (const uint32_t held : {uint32_t{0}, uint32_t{kRead}, uint32_t{kUpdate}}) {
    for (const uint32_t wanted : {uint32_t{0}, uint32_t{kRead}, uint32_t{kUpdate}, kMake}) {
      const bool agree = held == 0 || wanted == 0 || (held == kRead && wanted == kRead);
      ItemHandle* first = openItem(store, U"a", held);
      close(openItem(store, U"a", wanted));
      EXPECT_EQ(status, agree ? kOk : kItemInUse) << held << " " << wanted;
      close(first);
    }
  }
}

TEST_F(ItemTest, OnlyTheWriterWritesAndAHandleForNeitherDoesNothing) {
  put(open(U"x.st", kMake), U"a", pattern(9000));
  ItemHandle* neither = openItem(cached(U"x.st"), U"a", 0);
  EXPECT_TRUE(read(neither, 5).empty() && status == kNoMemory);
  ItemHandle* reader = openItem(cached(U"x.st"), U"a", kRead);
  for (ItemHandle* handle : {neither, reader})
    EXPECT_TRUE(write(handle, "more") == 0 && status == kNoMemory);
  close(neither);
  EXPECT_TRUE(read(reader, 9000) == pattern(9000) && status == kOk);
  EXPECT_TRUE(read(reader, 1).empty() && status == kEndOfItem);
}

// A page that is full when lock or memory fails keeps its bytes, whoever goes on.
TEST(Items, AFullPageWithoutASuccessorKeepsItsBytes) {
  for (const uint32_t kind : {kAcquireFault, kAllocateFault}) {
    for (const uint32_t storeFlags : {uint32_t{0}, uint32_t{kNoFile}}) {
      const bool goesOn = kind == kAcquireFault;
      World w;
      ItemHandle* writer = w.openItem(w.open(U"x.st", kMake | storeFlags), U"a", kMake);
      w.host.fail(kind, goesOn ? 2 : 4);
      EXPECT_EQ(w.write(writer, pattern(3 * kPage)), 2 * kPage);
      EXPECT_EQ(w.status, goesOn ? kNotLocked : kNoMemory);
      if (storeFlags == 0) w.close(w.cached(U"x.st"));
      if (storeFlags == 0) w.open(U"x.st", kUpdate);
      std::string bytes = pattern(2 * kPage);
      EXPECT_EQ(w.write(writer, "more"), goesOn ? 4 : 0) << "without a page it fails at once";
      if (goesOn) bytes += "more";
      w.close(writer);
      EXPECT_EQ(w.get(w.cached(U"x.st"), U"a"), bytes);
      w.put(w.cached(U"x.st"), U"a", "end");
      w.closeAll();
      EXPECT_EQ(w.get(w.open(U"x.st", kRead), U"a"), bytes + "end");
    }
  }
}

TEST_F(ItemTest, AnItemEndsAtItsLimit) {
  ItemHandle* writer = openItem(open(U"m", kMake | kNoFile), U"a", kMake);
  // As if it had been written that far.
  writer->item->size = writer->position = INT32_MAX - 5;
  writer->page->index = writer->position / kPage;
  const std::string bytes(10, 'x');
  for (const int32_t taken : {5, 0}) {
    EXPECT_EQ(hxcrateWrite(writer, bytes.data(), 10, &status), taken);
    EXPECT_TRUE(status == kNoMemory && writer->item->size == INT32_MAX);
  }
  writer->item->size = writer->position = 0;
  writer->page->index = 0;
}

TEST_F(ItemTest, HandlesOutliveAnOpeningOfTheirStore) {
  Store* store = makeReadable(pattern(3 * kPage));
  ItemHandle* reader = openItem(store, U"a", kRead);
  close(store);
  EXPECT_TRUE(read(reader, 5000) == pattern(kPage) && status == kFileNotOpen);
  ItemHandle* writer = openItem(open(U"x.st", kUpdate), U"b", kMake);
  EXPECT_EQ(read(reader, 5000), pattern(3 * kPage).substr(kPage, 5000)) << "the file is back";
  write(writer, pattern(5000));
  close(store);
  EXPECT_EQ(write(writer, "more"), 4);
  open(U"x.st", kRead);
  close(writer);
  EXPECT_EQ(get(store, U"b"), pattern(5000) + "more") << "pages stay until they are written";
  close(reader);
  close(store);
  close(open(U"x.st", kUpdate));
  EXPECT_EQ(reloaded(U"x.st").at(U"b"), pattern(5000) + "more");
}

}  // namespace
}  // namespace hx::fake
