#include "item/page_list.h"

#include "file/load_item.h"

namespace hx {

namespace {

// Whether the tree has a file or a blob that pages could be taken from again.
bool hasStorage(const ItemMember* item) {
  return item->parent->root->file != nullptr;
}

bool isDirty(const PageBuf* page) {
  return (page->flags & kPageDirty) != 0;
}

}  // namespace

extern "C" void decrementPageUseCount(ItemMember* item, PageBuf* page) {
  if (page->useCount > 0) --page->useCount;
  if (page->useCount > 0 || !hasStorage(item) || isDirty(page) || item->pageHolders > 0) return;
  PageBuf** link = &item->firstPage;
  while (*link != nullptr && *link != page)
    link = &(*link)->next;
  if (*link == nullptr) return;
  *link = page->next;
  freePage(item, page);
}

void linkPageAfter(ItemMember* item, PageBuf* page, PageBuf* added) {
  added->next = page->next;
  page->next = added;
  if (item->lastPage == page) item->lastPage = added;
}

void moveHandle(ItemHandle* handle, PageBuf* page) {
  ++page->useCount;
  decrementPageUseCount(handle->item, handle->page);
  handle->page = page;
}

// Also when the file is closed by now: an item with its first page alone in memory would be
// continued there, and no longer behind its end.
void dropStoredPages(ItemMember* item) {
  if (!hasStorage(item) && !item->parent->root->hasHadFile) return;
  for (const PageBuf* page = item->firstPage; page != nullptr; page = page->next) {
    if (isDirty(page)) return;
  }
  dropPagesBefore(item, nullptr);
}

void dropPagesBefore(ItemMember* item, const PageBuf* kept) {
  while (item->firstPage != kept) {
    PageBuf* page = item->firstPage;
    item->firstPage = page->next;
    freePage(item, page);
  }
}

}  // namespace hx
