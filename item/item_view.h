// An item opened for reading at any place. Any number of threads may read through one view; bytes
// move without the instance's lock where nothing can move them away meanwhile, and else under it.
//
//   1. `runs` holds pages 0 to pageCount - 1; all of them have bytes, and all but the item's last
//      are full. Until they are all known, the record behind them lies at `nextRecord`, or the page
//      is in memory.
//   2. `knownSize`, `runs`, `nextRecord` and `lastListed` change with the lock held; the first two
//      are read without it.
//   3. A view is counted in its item's `openCount` as a reader, so nothing is written to the item.
#pragma once

#include "item/page_runs.h"
#include "records/records.h"

namespace hx {

struct ItemView {
  ItemMember* item;
  int32_t (*readAt)(ItemView* view, int64_t offset, void* buffer, int32_t length, int32_t* status);
  int64_t (*size)(ItemView* view, int32_t* status);
  const void* (*bytesAt)(ItemView* view, int64_t offset, int64_t* count, int32_t* status);
  int32_t (*close)(ItemView* view);

  // The module's own.
  int64_t knownSize;  // bytes; -1: nobody has met the item's end yet
  PageRuns runs;
  int64_t firstRecord;
  int64_t nextRecord;
  PageBuf* lastListed;  // of the pages in memory, the last that was looked at
  bool holdsPages;      // memory has bytes that no file has; such pages are in `runs` by address
};

static_assert(offsetof(ItemView, item) == 0);
static_assert(offsetof(ItemView, readAt) == 8);
static_assert(offsetof(ItemView, size) == 16);
static_assert(offsetof(ItemView, bytesAt) == 24);
static_assert(offsetof(ItemView, close) == 32);

// The item's length, or -1.
inline int64_t knownSize(const ItemView* view) {
  return __atomic_load_n(&view->knownSize, __ATOMIC_ACQUIRE);
}

inline int32_t pageSizeOf(const ItemView* view) {
  return view->item->parent->root->pageSize;
}

// As in a file for reading, where all records lie behind the directory and no page behind its own.
// In other files an ENTRY lies behind each record, unless it is new since they were loaded.
inline bool recordsLieApart(const Store* root, int64_t firstRecord) {
  return root->directoryEnd > 0 && firstRecord >= root->directoryEnd;
}

inline bool areAllKnown(const ItemView* view) {
  const int64_t size = knownSize(view);
  return size >= 0 && static_cast<int64_t>(view->runs.pageCount()) * pageSizeOf(view) >= size;
}

}  // namespace hx
