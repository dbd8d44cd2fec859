// The pages of an item in memory and the handles that stand on them. Callers hold the instance's
// lock.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// A handle that stands on the page leaves it. When it was the last, the page leaves memory too,
// unless memory holds its only copy.
HX_EXPORT void decrementPageUseCount(ItemMember* item, PageBuf* page);

}  // extern "C"

// Puts a new page right after `page`.
void linkPageAfter(ItemMember* item, PageBuf* page, PageBuf* added);

// Moves a handle from its page to another one of the list.
void moveHandle(ItemHandle* handle, PageBuf* page);

// Drops every page of the item that is also in the file or the blob; all of them or none.
void dropStoredPages(ItemMember* item);

// Drops the pages before `kept`, which are all written.
void dropPagesBefore(ItemMember* item, const PageBuf* kept);

}  // namespace hx
