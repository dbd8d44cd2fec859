// The module's frame, and opening, sharing, enumerating, closing and deleting stores.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "file/disk_space.h"
#include "store/close_store.h"
#include "store/member_table.h"
#include "store/page_size.h"
#include "store/store_path.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

class StoreTest : public ModuleTest {};

TEST(Factory, AcquiresAndReleasesInOrder) {
  struct Case {
    uint32_t kind;
    int nth;
    const char* log;
  };
  for (const Case& c : {Case{kServiceFault, 1, ""},
                        {kAllocateFault, 1, ", destroy pool"},
                        {kServiceFault, 2, ", create lock, destroy pool"},
                        {kServiceFault, 3, ", create lock, load hxfio, destroy lock, destroy pool"},
                        {kServiceFault, 4,
                         ", create lock, load hxfio, load hxmok, "
                         "destroy hxfio, destroy lock, destroy pool"},
                        {kNoFault, 0,
                         ", create lock, load hxfio, load hxmok, "
                         "destroy hxmok, destroy hxfio, destroy lock, destroy pool"}}) {
    FakeHost host;
    host.fail(c.kind, c.nth);
    int64_t major = 0, minor = 0;
    EXPECT_TRUE(hxmodver(&host, &major, &minor) == 0 && major == 6 && minor == 1);
    ExtensionInstance* instance = hx::hxcrate();
    EXPECT_TRUE(instance == nullptr || instance->destroy(instance) == 0);
    EXPECT_EQ(host.log(), std::string("create pool") + c.log);
  }
}

TEST_F(StoreTest, VersionsAndTheVersionRecord) {
  int64_t v[6] = {};
  instance->getRequiredVersion(instance, &v[0], &v[1], &v[2]);
  instance->getVersion(instance, &v[3], &v[4], &v[5]);
  EXPECT_EQ(std::vector<int64_t>(v, v + 6), (std::vector<int64_t>{6, 1, 1, 1, 0, 3}));
  int64_t slots[kVersionSlots + 1] = {};
  slots[kVersionSlots] = 77;
  EXPECT_TRUE(hxrelct1(slots) == 0 && slots[kVersionSlots] == 77);
  const size_t lengths[] = {18, 13, 0, 0, 6, 7, 5, 18, 0, 7, 2, 0, 65, 0, 65, 5, 28};
  for (int i = 0; i < 17; ++i) {
    EXPECT_TRUE(i == 3 || std::strlen(reinterpret_cast<const char*>(slots[i])) == lengths[i]) << i;
  }
}

TEST(Factory, WithoutEncodingsTheIdentityIsZeroAndHeadersCarryIt) {
  World w({}, false);
  w.put(w.open(U"x.st", kMake), U"a", "0123456789");
  w.closeAll();
  EXPECT_EQ(Bytes(w.host.file(U"x.st").begin(), w.host.file(U"x.st").begin() + 24), Bytes(24));
  EXPECT_EQ(w.get(w.open(U"x.st", kUpdate), U"a"), "0123456789");
  World other(w.host.disk());
  EXPECT_EQ(other.open(U"x.st", kRead), nullptr) << "nobody converts from an unknown encoding";
  EXPECT_EQ(other.status, kUnreadable);
}

// ---- every way to open stores and items

// Stores in all their states: `reading`, `updating`, `cached` (closed), `disk` (never loaded),
// `foreign`, `foreignCached`, `short`, `damaged`, `memory`.
void fillWorld(World& w) {
  for (const auto* path : {U"reading", U"updating", U"cached"}) {
    Store* store = w.open(path, kMake);
    w.put(store, U"a", "0123456789");
    w.close(w.openIn(store, U"e", kMake));
    w.put(store, U"e/y", pattern(5000));
    w.close(store);
  }
  w.host.file(U"disk") = w.host.file(U"damaged") = w.host.file(U"cached");
  w.host.file(U"foreign") = w.host.file(U"foreignCached") = asBigEndian(w.host.file(U"cached"));
  w.close(w.open(U"foreignCached", kRead));
  w.host.file(U"short").resize(39);
  setField(w.host.file(U"damaged"), 0, &Header::pageSizeCode, int64_t{INT64_MIN});
  w.close(w.open(U"memory", kMake | kNoFile));
  w.open(U"reading", kRead);
  w.open(U"updating", kUpdate);
}

// What to open, and a list of "flags=outcome": the flags by their letters (Read, Update, Create,
// rePlace, eXclusive, No file, "-" for none), and the openCount that comes of it, or !status.
struct OpenCase {
  Path name;
  const char* outcomes;
};

uint32_t flagsOf(const std::string& letters) {
  uint32_t flags = 0;
  for (const char letter : letters)
    flags |= letter == '-' ? 0u : 1u << std::string("RUCPXN").find(letter);
  return flags;
}

// Each opening in a world of its own. What fails leaves the disk and the stores on the way alone.
void tryToOpen(bool isItem, const char32_t* in, const std::vector<OpenCase>& cases) {
  for (const auto& [name, outcomes] : cases) {
    std::istringstream words(outcomes);
    for (std::string word; words >> word;) {
      const size_t split = word.find_first_of("=!");
      const int number = std::stoi(word.substr(split + 1));
      SCOPED_TRACE(std::string(name.begin(), name.end()) + " " + word);
      World w;
      fillWorld(w);
      const Disk before = w.host.disk();
      Store* e = w.openIn(w.cached(U"updating"), U"e", kRead);
      Store* parent = in == nullptr ? nullptr : w.cached(in);
      const uint32_t flags = flagsOf(word.substr(0, split));
      const ItemHandle* handle = isItem ? w.openItem(parent, name, flags) : nullptr;
      const Store* store = isItem              ? nullptr
                           : parent != nullptr ? w.openIn(parent, name, flags)
                                               : w.open(name, flags);
      if (word[split] == '!') {
        EXPECT_TRUE(handle == nullptr && store == nullptr && w.status == -number) << w.status;
        EXPECT_TRUE(w.status == kNotFound || w.host.disk() == before);
      } else {
        ASSERT_TRUE(handle != nullptr || store != nullptr) << w.status;
        EXPECT_EQ(handle != nullptr ? handle->item->openCount : store->openCount, number);
        EXPECT_EQ(w.status, kOk);
      }
      EXPECT_EQ(e->openCount, store == e ? 2 : 1) << "a store on the way stays open";
    }
  }
}

const Path name63(63, U'c');
const Path name64(64, U'c');

TEST(Open, TopLevelStores) {
  tryToOpen(false, nullptr,
            {{U"absent", "R!1 RC!1 U!1 C!1 RN!1 UP!1 UC=-1 UCX=-1 UCP=-1 UCN=-1 RU!11"},
             {U"reading", "RU!11 UPX!11 R=2 U=-2 RN=2 UN!10 UCP!10 RX!2"},
             {U"updating", "R=-2 U=-2 UN=-2 UP!10 UX!2"},
             {U"cached", "-=0 R=1 U=-1 UN=-1 UCP=-1 UP!1 UCX!2"},
             {U"disk", "R=1 UC=-1 UCP=-1 RX!2 UCX!2"},
             {U"foreign", "R=1 U!9"},
             {U"foreignCached", "R=1 U!9"},
             {U"short", "R!1 UCX=-1"},
             {U"damaged", "R!13 UC!13 UCP=-1"},
             {U"memory", "R=0 U=-1 UN=-1 UCPN=-1"},
             {U"", "R!1 UC!8"},
             {U"dir/with:sepa\\rators", "R!1 UC=-1"}});
}

TEST(Open, NestedStores) {
  tryToOpen(false, U"updating",
            {{U"e", "R=2 UC=2 UCX!2 RU!11"},
             {U"a", "R!1 UC!2 RX!2"},
             {U"new", "R!1 U!1 UC=1 UCN=1"},
             {U"E", "R!1"},
             {U"e/new", "R!1 UC=1"},
             {U"e/", "R!1 UC=1"},
             {U"e/y", "R!1 UC!2"},
             {U"a/new", "UC!1"},
             {U"q/new", "UC!1"},
             {U"/new", "UC!1"},
             {name63 + U"/n", "UC!1"},
             {name64 + U"/n", "UC!12"},
             {name64 + name64, "UC=1"}});
}

TEST(Open, Items) {
  tryToOpen(true, U"updating",
            {{U"a", "R=1 U=-1 UC=-1 -=0 RU!11 UPX!11 UCX!2"},
             {U"e", "R!1 UC!2 RX!2"},
             {U"new", "R!1 RC!1 U!1 UCN=-1"},
             {U"", "R!1 UC=-1"},
             {U"e/y", "R=1"},
             {U"q/new", "UC!1"},
             {U"/new", "UC!1"},
             {name63 + U"/n", "UC!1"},
             {name64 + U"/n", "UC!12 RU!11"},
             {name64 + name64, "UC=-1"}});
  tryToOpen(true, U"reading", {{U"a", "R=1 U!11"}, {U"new", "UC!11"}});
  tryToOpen(true, U"cached", {{U"a", "R!8 U!8"}, {U"new", "UC!8"}});
  tryToOpen(true, nullptr,
            {{U"a", "R!5 UC!5"},
             {U"updating/a", "R=1"},
             {U"updating/e/new", "UC=-1"},
             {U"disk/a", "R=1"},
             {U"disk/new", "UC!11"},
             {U"absent/a", "UC!1"},
             {name64 + U"/n", "R!12"}});
}

TEST(Open, WithoutTheLockNothingHappens) {
  World w;
  fillWorld(w);
  Store* store = w.cached(U"updating");
  ItemHandle* reader = w.openItem(store, U"e/y", kRead);
  w.host.fail(kAcquireFault, 1, true);
  EXPECT_TRUE(w.open(U"cached", kRead) == nullptr && w.status == kNotLocked);
  EXPECT_TRUE(w.openItem(store, U"a", kRead) == nullptr && w.status == kNotLocked);
  EXPECT_TRUE(w.list(store).empty() && w.status == kNotLocked);
  EXPECT_TRUE(w.read(reader, 5000) == pattern(4096) && w.status == kNotLocked);
  EXPECT_EQ(w.close(reader), 5) << "the lock's answer";
  w.close(store);
  hxcrateCloseAndDeleteStore(store);
  EXPECT_EQ(store->openCount, -1);
}

// ---- sharing, closing, deleting

TEST_F(StoreTest, TheLastToLeaveWritesAnUpdatedStoreAndNoOther) {
  close(open(U"x.st", kMake));
  Store* store = open(U"x.st", kRead);
  host.events.clear();
  close(store);
  EXPECT_EQ(host.log(), "close");
  open(U"x.st", kRead);
  open(U"x.st", kUpdate);
  close(store);
  EXPECT_TRUE(host.count("open") == 2 && host.count("write") == 0);
  close(store);
  EXPECT_TRUE(host.count("write") == 2 && host.count("write", 40) == 2);
}

TEST_F(StoreTest, ReadersKeepTheirFileWhenAnUpdaterCannotOpenIt) {
  put(open(U"x.st", kMake), U"a", pattern(5000));
  closeAll();
  Store* store = open(U"x.st", kRead);
  ItemHandle* reader = openItem(store, U"a", kRead);
  host.fail(kOpenFault, 1);
  EXPECT_TRUE(open(U"x.st", kUpdate) == nullptr && status == kFileNotOpen);
  EXPECT_TRUE(open(U"x.st", kUpdate | kNoFile) == nullptr && status == kStoreInUse);
  EXPECT_EQ(store->openCount, 1);
  EXPECT_EQ(read(reader, 5000), pattern(5000));
  EXPECT_EQ(open(U"x.st", kUpdate), store);
}

TEST_F(StoreTest, AFileThatCannotBeRemovedIsNotReplaced) {
  put(open(U"x.st", kMake), U"a", "old");
  for (const int32_t result : {int32_t{HX_REMOVE_IO_ERROR}, int32_t{HX_REMOVE_IN_USE}, 17}) {
    closeAll();
    host.removeResult = result;
    EXPECT_EQ(open(U"x.st", kMake | kReplace), nullptr) << "never created over an old file";
    EXPECT_EQ(status, result == 17 ? kFileNotOpen : result);
    EXPECT_EQ(get(open(U"x.st", kRead), U"a"), "old");
  }
}

TEST_F(StoreTest, APassingFailureNeverCreatesOverAnOldFile) {
  put(open(U"y.st", kMake), U"a", "old");
  closeAll();
  host.file(U"x.st") = host.file(U"y.st");
  const Disk before = host.disk();
  for (const uint32_t kind : {kOpenFault, kReadFault, kSeekFault}) {
    for (const bool forEver : {false, true}) {
      host.fail(kind, 1, forEver);
      EXPECT_TRUE(open(U"x.st", kMake) == nullptr && status == kFileNotOpen && host.hasFired());
      EXPECT_EQ(host.disk(), before);
    }
  }
}

TEST_F(StoreTest, CloseAndDeleteTakesTheFileOfTheLastOpenerOnly) {
  Store* store = open(U"x.st", kMake);
  put(store, U"long", pattern(9000));
  ItemHandle* handle = openItem(store, U"long", kRead);
  open(U"x.st", kRead);
  Store* nested = openIn(store, U"n", kMake);
  hxcrateCloseAndDeleteStore(nested);
  EXPECT_TRUE(nested->openCount == 0 && list(store) == "n/ long ");
  hxcrateCloseAndDeleteStore(store);
  EXPECT_TRUE(host.hasFile(U"x.st"));
  hxcrateCloseAndDeleteStore(store);
  EXPECT_TRUE(!host.hasFile(U"x.st") && cached(U"x.st") == nullptr);
  EXPECT_TRUE(read(handle, 9000) == pattern(4096) && status == kFileNotOpen) << "still a handle";
  close(handle);
  EXPECT_EQ(blocks(), 1);
}

TEST_F(StoreTest, AMemoryStoreNeverTouchesAnotherFileOfItsName) {
  host.file(U"m") = Bytes(100, 7);
  Store* store = open(U"m", kMake | kNoFile);
  put(store, U"a", pattern(9000));
  close(store);
  EXPECT_TRUE(open(U"m", kUpdate) == nullptr && status == kFileNotOpen);
  EXPECT_EQ(get(open(U"m", kRead), U"a"), pattern(9000));
  hxcrateCloseAndDeleteStore(store);
  EXPECT_EQ(host.file(U"m"), Bytes(100, 7));
}

TEST_F(StoreTest, AMemoryStoreThatGetsAFileBecomesOne) {
  Store* store = open(U"m", kMake | kNoFile);
  put(store, U"a", pattern(9000));
  close(openItem(openIn(store, U"n", kMake), U"empty", kMake));
  close(store);
  put(open(U"m", kUpdate), U"b", "more");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(get(store, U"a") + get(store, U"n/empty"), pattern(9000)) << "not yet written";
  }
  close(store);
  const Contents all = contents(open(U"m", kRead));
  EXPECT_TRUE(all.at(U"a") == pattern(9000) && all.at(U"b") == "more");
  EXPECT_EQ(reloaded(U"m"), all);
  hxcrateCloseAndDeleteStore(store);
  EXPECT_FALSE(host.hasFile(U"m"));
}

TEST_F(StoreTest, AFileStoreUpdatedWithoutItsFileKeepsItsNewsUntilItHasOne) {
  put(open(U"x.st", kMake), U"a", "old");
  closeAll();
  const Disk before = host.disk();
  Store* store = open(U"x.st", kUpdate | kNoFile);
  put(store, U"b", pattern(9000));
  EXPECT_TRUE(get(store, U"b") == pattern(9000) && get(store, U"a") == "status -8");
  close(store);
  EXPECT_EQ(host.disk(), before);
  close(open(U"x.st", kUpdate));
  EXPECT_EQ(reloaded(U"x.st"), (Contents{{U"a", "old"}, {U"b", pattern(9000)}}));
}

TEST_F(StoreTest, AStoreWhoseFileChangedIsLoadedAnewUnlessAHandleIsOpen) {
  put(open(U"x.st", kMake), U"a", "old");
  closeAll();
  World other(host.disk());
  other.put(other.open(U"x.st", kUpdate), U"b", "new");
  other.closeAll();
  host.setDisk(other.host.disk());
  EXPECT_EQ(list(open(U"x.st", kRead)), "a b ");
  ItemHandle* handle = openItem(cached(U"x.st"), U"a", kRead);
  close(cached(U"x.st"));
  EXPECT_TRUE(open(U"x.st", kMake | kReplace) == nullptr && status == kStoreInUse);
  host.file(U"x.st").push_back(0);
  EXPECT_TRUE(open(U"x.st", kRead) == nullptr && status == kStoreInUse);
  EXPECT_EQ(read(handle, 3), "old");
  close(handle);
  EXPECT_NE(open(U"x.st", kRead), nullptr);
}

TEST_F(StoreTest, PathAndPageSize) {
  Store* store = open(U"x.st", kMake);
  Store* nested = openIn(store, U"n", kMake);
  char32_t path[20] = {};
  for (const auto& [room, copied] : {std::pair{4, 4}, {0, 0}, {-1, 0}, {20, 10}}) {
    int32_t length = room;
    EXPECT_TRUE(nested->path(nested, path, &length) == kOk && length == copied);
  }
  EXPECT_EQ(Path(path), U"/full/x.st");
  EXPECT_EQ(hxcrateSetPageSize(store, 8192), kPageSizeFixed);
  Store* odd = open(U"y.st", kMake);
  EXPECT_TRUE(odd->setPageSize(odd, -5) == kOk && odd->setPageSize(odd, 8) == kPageSizeFixed);
  EXPECT_TRUE(openItem(odd, U"a", kMake) == nullptr && status == kNoMemory);
}

// ---- members and space

TEST_F(StoreTest, EnumeratesBucketsInOrderAndTheNewestFirst) {
  EXPECT_TRUE(hashName({U"ab", 2}) == 102038009u && hashName({U"abc", 3}) == 1486459893u);
  char32_t last = U'!';
  while (bucketOf({&last, 1}) != 62)
    ++last;
  Store* store = open(U"x.st", kMake);
  close(openIn(store, U"e", kMake));  // bucket 22, as y is
  for (const Path& name : {Path(U"y"), Path(1, last), Path(U"a"), Path()})
    put(store, name, "");
  const std::string end = {static_cast<char>(last), ' '};
  EXPECT_EQ(list(store), "a y e/ " + end) << "without the nameless";
  char32_t name[8] = {};
  int32_t length = 0, kind = 0;
  EXPECT_EQ(store->getNextMember(store, U"xy", 2, name, &length, &kind), kOk) << "behind no member";
  close(store);
  EXPECT_EQ(reloaded(U"x.st").count(U""), 1u) << "the nameless is there";
}

// Large tables that are searched have an index, unless the pool refuses it; names are found and listed all the same.
// One name in fifty is cut by the format, so that a loaded table has that name eleven times.
TEST_F(StoreTest, MembersOfALargeTable) {
  Store* store = open(U"x.st", kMake);
  hxcrateSetPageSize(store, 1);
  for (int i = 0; i < 520; ++i) {
    const std::string number = std::to_string(i);
    const Path name = Path(i % 50 == 0 ? name64 : Path()) + Path(number.begin(), number.end());
    if (i == 257) host.fail(kAllocateFault, 1);
    put(store, name, number);
    EXPECT_EQ(host.hasFired(), i >= 257);
    EXPECT_EQ(get(store, name), number);
  }
  close(store);
  World other(host.disk());
  store = other.open(U"x.st", kRead);
  const std::string names = other.list(store);
  EXPECT_EQ(std::count(names.begin(), names.end(), ' '), 520 - 10);
  EXPECT_TRUE(store->memberIndex.slots != nullptr && other.get(store, U"77") == "77");
}

TEST_F(StoreTest, StoresLeaveALargeTable) {
  for (char32_t i = 0; i < 260; ++i)
    close(open(Path(1, U'a' + i), kMake | kNoFile));
  hxcrateCloseAndDeleteStore(cached(U"z"));
  check();
  EXPECT_TRUE(open(U"z", kRead) == nullptr && status == kNotFound);
}

TEST_F(StoreTest, SpaceComesFromReleasedExtentsOfTheSameLengthOrTheEnd) {
  Store* store = open(U"x.st", kMake);
  EXPECT_EQ(allocateDiskSpace(openIn(store, U"n", kMake), 4096), 40);
  releaseDiskSpace(store, 1000, 24);
  releaseDiskSpace(store, 2000, 24);
  for (const auto& [length, offset] : {std::pair{96, 4136}, {24, 2000}, {24, 1000}})
    EXPECT_EQ(allocateDiskSpace(store, length), offset);
  EXPECT_EQ(store->freeList, nullptr);
  releaseDiskSpace(store, 3000, 0);
  releaseDiskSpace(store, 3000, 96);
  EXPECT_EQ(store->freeList->next, nullptr) << "the empty node is filled";
  store->freeList->keep = 1;
  EXPECT_TRUE(allocateDiskSpace(store, 96) == 3000 && store->freeList->length == 0);
}

}  // namespace
}  // namespace hx::fake
