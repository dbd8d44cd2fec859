#include "tests/module_fixture.h"

#include <algorithm>
#include <cstring>

#include "blob/open_blob.h"
#include "item/open_item.h"
#include "item/read_item.h"
#include "item/write_item.h"
#include "store/close_store.h"
#include "store/enumerate.h"
#include "store/name.h"
#include "store/open_store.h"

namespace hx::fake {

namespace {

int32_t lengthOf(std::u32string_view name) {
  return static_cast<int32_t>(name.size());
}

std::u32string_view viewOf(const Member* member) {
  return {member->name, static_cast<size_t>(member->nameLength)};
}

void expectOutcome(bool succeeded, int32_t status) {
  EXPECT_TRUE(status <= kOk && (status >= kPageSizeFixed || status <= HX_REMOVE_IO_ERROR));
  EXPECT_TRUE(succeeded || status < 0) << status;
}

using Handles = std::vector<ItemHandle*>;

void checkPages(const ItemMember* item) {
  const Store* root = item->parent->root;
  const bool isOnlyCopy = (root->flags & kNoFileStore) != 0 && !root->hasHadFile;
  int32_t index = -1;
  for (const PageBuf* page = item->firstPage; page != nullptr; page = page->next) {
    EXPECT_GT(page->index, index) << "pages do not rise";
    EXPECT_TRUE(!isOnlyCopy || page->index == index + 1) << "the only copy of a page is gone";
    EXPECT_TRUE(page->buffer != nullptr && page->useCount >= 0);
    EXPECT_TRUE(page->next != nullptr || item->lastPage == page);
    index = page->index;
  }
}

void checkHandle(const ItemHandle* handle, const Handles& handles) {
  const ItemMember* item = handle->item;
  const PageBuf* page = item->firstPage;
  while (page != nullptr && page != handle->page)
    page = page->next;
  ASSERT_NE(page, nullptr) << "a handle stands on a page that is not in the list";
  // A reader that closed leaves its count on the page, so there may be more than are standing.
  EXPECT_GE(page->useCount, std::count_if(handles.begin(), handles.end(),
                                          [&](const auto* other) { return other->page == page; }));
  const int64_t start = int64_t{page->index} * item->parent->root->pageSize;
  EXPECT_GE(handle->position, start);
  EXPECT_LE(handle->position, start + item->parent->root->pageSize);
}

void checkItem(const ItemMember* item, const Handles& handles) {
  int readers = 0;
  int writers = 0;
  for (const ItemHandle* handle : handles) {
    if (handle->item != item) continue;
    if (handle->page != nullptr) checkHandle(handle, handles);
    readers += handle->access == kRead ? 1 : 0;
    writers += handle->access == kUpdate ? 1 : 0;
  }
  EXPECT_EQ(item->openCount, writers != 0 ? -writers : readers);
  checkPages(item);
}

// The index, if there is one, has the members of the chains, those of one hash in their order.
void checkIndex(const MemberTable& table, const MemberIndex& index) {
  const std::vector<Member*> members = chained(table);
  EXPECT_EQ(members.size(), index.memberCount);
  if (index.slots == nullptr) return;
  std::map<uint32_t, std::vector<Member*>> wanted, listed;
  for (Member* member : members)
    wanted[hashName(nameOf(member))].push_back(member);
  uint32_t start = 0;
  while (index.slots[start].member != nullptr)
    ++start;
  for (uint32_t i = 1; i <= index.mask; ++i) {
    const IndexSlot& slot = index.slots[(start + i) & index.mask];
    if (slot.member != nullptr) listed[slot.hash].push_back(slot.member);
  }
  EXPECT_EQ(listed, wanted);
}

void checkMembers(Store* store, const Handles& handles) {
  checkIndex(store->members, store->memberIndex);
  for (Member* member : chained(store->members)) {
    if (member->kind == kItemKind) {
      EXPECT_EQ(asItem(member)->parent, store);
      checkItem(asItem(member), handles);
      continue;
    }
    Store* nested = asStore(member);
    EXPECT_TRUE(nested->kind == kStoreKind && nested->parent == store);
    EXPECT_TRUE(nested->root == store->root && nested->file == nullptr);
    EXPECT_TRUE(nested->openCount >= 0 && nested->openHandles == 0);
    checkMembers(nested, handles);
  }
}

// Compares the records of a tree with each other and with the handles that are open in it.
void checkStore(Store* root, const Handles& handles) {
  EXPECT_TRUE(isRoot(root) && root->kind == kStoreKind);
  EXPECT_TRUE(root->openCount <= 0 || root->file != nullptr);
  EXPECT_TRUE(root->openCount != 0 || openFile(root) == nullptr) << "closed, but not its file";
  EXPECT_EQ(root->openHandles, std::count_if(handles.begin(), handles.end(), [&](const auto* h) {
              return h->item->parent->root == root;
            }));
  checkMembers(root, handles);
}

}  // namespace

std::vector<Member*> chained(const MemberTable& table) {
  std::vector<Member*> members;
  for (Member* member : table.buckets) {
    for (; member != nullptr; member = member->next)
      members.push_back(member);
  }
  return members;
}

std::string pattern(int64_t size) {
  std::string bytes(static_cast<size_t>(size), ' ');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>('a' + (i + i / 7 + i / 4096) % 26);
  return bytes;
}

World::World(const Disk& disk, bool knowsEncodings) {
  host.setDisk(disk);
  host.knowsEncodings = knowsEncodings;
  hxmodent(&host);
  instance = hx::hxcrate();
}

World::~World() {
  host.stopFailing();
  if (instance == nullptr) return;
  closeAll();
  host.removeResult = 0;
  for (Member* member : chained(instance->stores))
    hxcrateCloseAndDeleteStore(asStore(member));
  EXPECT_EQ(blocks(), instance->storeIndex.slots == nullptr ? 1 : 2) << "records are left";
  EXPECT_EQ(host.liveConverters, 0);
  instance->destroy(instance);
}

Store* World::open(std::u32string_view path, uint32_t flags) {
  status = 1;
  Store* store =
      instance->openStore(instance, nullptr, path.data(), lengthOf(path), flags, &status);
  expectOutcome(store != nullptr, status);
  check();
  return store;
}

Store* World::openIn(Store* parent, std::u32string_view name, uint32_t flags) {
  if (parent == nullptr) return nullptr;
  Store* store = instance->openStore(instance, parent, name.data(), lengthOf(name), flags, &status);
  expectOutcome(store != nullptr, status);
  check();
  return store;
}

Store* World::openBlob(const Bytes& blob, uint32_t flags) {
  Store* store =
      hxcrateOpenStoreFromMemory(instance, blob.data(), blob.size(), U"blob", 4, flags, &status);
  EXPECT_EQ(store == nullptr, status != kOk) << status;
  if (store != nullptr) blobStores.push_back(store);
  check();
  return store;
}

ItemHandle* World::openItem(Store* store, std::u32string_view name, uint32_t flags) {
  status = 1;
  ItemHandle* handle =
      instance->openItem(instance, store, name.data(), lengthOf(name), flags, &status);
  EXPECT_EQ(handle != nullptr, status == kOk);
  if (handle != nullptr) handles.push_back(handle);
  check();
  return handle;
}

int32_t World::write(ItemHandle* handle, const std::string& bytes) {
  if (handle == nullptr) return 0;
  status = 1;
  const auto length = static_cast<int32_t>(bytes.size());
  const int32_t taken = hxcrateWrite(handle, bytes.data(), length, &status);
  expectOutcome(taken == length, status);
  check();
  return taken;
}

std::string World::read(ItemHandle* handle, int32_t length, void* conversionArgument) {
  if (handle == nullptr) return "";
  std::string bytes(static_cast<size_t>(std::max(length, 0)), '?');
  status = 1;
  const uint32_t count = hxcrateRead(handle, bytes.data(), length, conversionArgument, &status);
  expectOutcome(true, status);
  EXPECT_LE(count, bytes.size());
  EXPECT_EQ(bytes.find_first_not_of('?', count), std::string::npos) << "bytes behind the result";
  bytes.resize(count);
  check();
  return bytes;
}

int32_t World::close(ItemHandle* handle) {
  if (handle == nullptr) return 0;
  const int32_t result = hxcrateCloseItem(handle);
  if (result == 0) handles.erase(std::find(handles.begin(), handles.end(), handle));
  check();
  return result;
}

void World::close(Store* store) {
  if (store == nullptr) return;
  const auto blob = std::find(blobStores.begin(), blobStores.end(), store);
  if (blob != blobStores.end()) blobStores.erase(blob);
  hxcrateCloseStore(store);
  check();
}

void World::closeAll() {
  while (!handles.empty()) {
    ASSERT_EQ(close(handles.back()), 0);
  }
  while (!blobStores.empty())
    close(blobStores.back());
  for (Member* member : chained(instance->stores)) {
    while (asStore(member)->openCount != 0)
      close(asStore(member));
  }
}

int32_t World::put(Store* store, std::u32string_view name, const std::string& bytes) {
  ItemHandle* handle = store == nullptr ? nullptr : openItem(store, name, kMake);
  const int32_t taken = write(handle, bytes);
  const int32_t outcome = status;
  close(handle);
  status = outcome;
  return taken;
}

std::string World::get(Store* store, std::u32string_view name) {
  ItemHandle* handle = openItem(store, name, kRead);
  if (handle == nullptr) return "status " + std::to_string(status);
  std::string bytes = read(handle, handle->item->size);
  if (status != kOk && status != kEndOfItem) bytes = "status " + std::to_string(status);
  close(handle);
  return bytes;
}

std::string World::list(Store* store) {
  std::string all;
  std::vector<char32_t> name(4096);
  int32_t length = 0;
  int32_t kind = 0;
  while ((status = hxcrateGetNextMember(store, name.data(), length, name.data(), &length, &kind)) ==
         kOk) {
    all += std::string(name.begin(), name.begin() + length) + (kind == kStoreKind ? "/ " : " ");
  }
  return all;
}

Contents World::contents(Store* store, const Path& prefix) {
  Contents all;
  for (Member* member : chained(store->members)) {
    const Path path = prefix + Path(viewOf(member));
    if (member->kind == kItemKind) {
      all[path] = get(store, viewOf(member));
    } else {
      all[path + U"/"] = "";
      all.merge(contents(asStore(member), path + U"/"));
    }
  }
  return all;
}

Contents World::reloaded(const Path& path) const {
  World other(host.disk());
  Store* store = other.open(path, kRead);
  EXPECT_EQ(other.status, kOk);
  return store == nullptr ? Contents() : other.contents(store);
}

Store* World::cached(std::u32string_view path) {
  for (Member* member : chained(instance->stores)) {
    if (viewOf(member) == path) return asStore(member);
  }
  return nullptr;
}

void World::check() {
  checkIndex(instance->stores, instance->storeIndex);
  for (Member* member : chained(instance->stores))
    checkStore(asStore(member), handles);
  for (Store* store : blobStores)
    checkStore(store, handles);
}

}  // namespace hx::fake
