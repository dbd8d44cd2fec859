// The pages of an item in memory and the handles that stand on them. Callers hold the instance's
// lock.
//
// A page is dirty while memory holds bytes of it that the file does not, from the start in a tree
// without a file. Only clean pages leave memory, and only in a tree with a file or a blob, from
// which they are loaded again.
#pragma once

#include "file/chunk_chain.h"
#include "records/builders.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

inline bool isDirty(const PageBuf* page) {
  return (page->flags & kPageDirty) != 0;
}

// Whether pages can be written now: a file that is open for readers only takes none.
bool takesPages(const Store* root);

// ---- loading

// Sets the size of an item that has no page in memory and gives it one: the first when `flags` has
// kRead, else the last; an item of a blob's tree has no other than the first. kOk, kNoMemory,
// kUnreadable, or kFileNotOpen when the tree has neither file nor blob; the item is left as it was
// then.
Status loadItem(ItemMember* item, uint32_t flags);

// Loads page 0 anew in front of the list of an item whose other pages are in memory.
Status loadFirstPage(ItemMember* item);

// Makes a new page that of the record. A page of a blob has its bytes then.
void describePage(const ItemMember* item, PageBuf* page, const ChunkPlace& place);

// The same, and reads the bytes: kOk or kUnreadable.
Status fillPage(const ItemMember* item, PageBuf* page, const ChunkPlace& place);

// Whether the file has all of the block of the item's last page, which is in memory. A page that is
// continued is written back whole; of a block that was cut off, the file may have handed out the
// rest again.
bool canBeContinued(const ItemMember* item);

// ---- the list

// Puts a new page right after `page`.
void linkPageAfter(ItemMember* item, PageBuf* page, PageBuf* added);

// Moves a handle from its page to another one of the list.
void moveHandle(ItemHandle* handle, PageBuf* page);

// A handle that stands on the page leaves it. When it was the last, the page leaves memory too, if
// it may.
void leavePage(ItemMember* item, PageBuf* page);

// Drops every page of the item, if all of them may leave memory.
void dropStoredPages(ItemMember* item);

// Drops the pages before `kept`, which are all written.
void dropPagesBefore(ItemMember* item, const PageBuf* kept);

}  // namespace hx
