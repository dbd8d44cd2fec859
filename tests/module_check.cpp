// The invariants: what holds of the records in memory after every statement.
#include <algorithm>
#include <string_view>

#include "records/name.h"
#include "tests/module_world.h"

namespace hx::fake {

namespace {

void checkPages(const ItemMember* item) {
  const Store* root = item->parent->root;
  const bool isOnlyCopy = (root->flags & kNoFileStore) != 0 && !root->hasHadFile;
  int32_t index = -1;
  for (const PageBuf* page = item->firstPage; page != nullptr; page = page->next) {
    EXPECT_GT(page->index, index) << "pages do not rise";
    EXPECT_TRUE(!isOnlyCopy || page->index == index + 1) << "the only copy of a page is gone";
    EXPECT_TRUE(page->next != nullptr || item->lastPage == page);
    index = page->index;
  }
}

void checkHandle(const ItemHandle* handle, const Handles& handles) {
  const PageBuf* page = handle->item->firstPage;
  while (page != nullptr && page != handle->page)
    page = page->next;
  ASSERT_NE(page, nullptr) << "a handle stands on a page that is not in the list";
  // A reader that closed leaves its count on the page, so there may be more than are standing.
  const auto standsHere = [&](const auto& other) { return other.second->page == page; };
  EXPECT_GE(page->useCount, std::count_if(handles.begin(), handles.end(), standsHere));
  const int32_t pageSize = handle->item->parent->root->pageSize;
  const int64_t offset = handle->position - int64_t{page->index} * pageSize;
  EXPECT_TRUE(offset >= 0 && offset <= pageSize) << "not the page of its position";
}

void checkItem(const ItemMember* item, const Handles& handles) {
  int openCount = 0;
  for (const auto& [name, handle] : handles) {
    if (handle->item != item) continue;
    if (handle->page != nullptr) checkHandle(handle, handles);
    openCount += handle->access == kUpdate ? -1 : handle->access == kRead ? 1 : 0;
  }
  EXPECT_EQ(item->openCount, openCount);
  checkPages(item);
}

void checkMembers(const Store* store, const Handles& handles) {
  checkIndex(store->members, store->memberIndex);
  for (Member* member : chained(store->members)) {
    if (member->kind == kItemKind) {
      EXPECT_EQ(asItem(member)->parent, store);
      checkItem(asItem(member), handles);
      continue;
    }
    const Store* nested = asStore(member);
    EXPECT_TRUE(nested->parent == store && nested->root == store->root && nested->openCount >= 0);
    checkMembers(nested, handles);
  }
}

}  // namespace

// The index, if there is one, has each name of the chains once, with its newest member.
void checkIndex(const MemberTable& table, const MemberIndex& index) {
  const std::vector<Member*> members = chained(table);
  EXPECT_EQ(members.size(), index.memberCount);
  if (!index.isFilled) return;
  using Newest = std::map<std::u32string_view, Member*>;
  const auto note = [](Newest& newest, Member* member) {
    const Name name = nameOf(member);
    const auto length = static_cast<size_t>(name.length);
    return newest.emplace(std::u32string_view(name.characters, length), member).second;
  };
  Newest wanted, listed;
  for (Member* member : members)
    note(wanted, member);
  for (uint32_t i = 0; i <= index.mask; ++i) {
    Member* member = index.slots[i].member;
    EXPECT_TRUE(member == nullptr || note(listed, member)) << "a name has two slots";
  }
  EXPECT_EQ(listed, wanted);
  EXPECT_EQ(members.size() - wanted.size(), index.olderCount);
}

void checkTree(const Store* root, const Handles& handles) {
  EXPECT_TRUE(root->openCount <= 0 || root->file != nullptr);
  EXPECT_TRUE(root->openCount != 0 || fileOf(root) == nullptr) << "closed, but not its file";
  EXPECT_EQ(root->openHandles, std::count_if(handles.begin(), handles.end(), [&](const auto& h) {
              return h.second->item->parent->root == root;
            }));
  checkMembers(root, handles);
}

}  // namespace hx::fake
