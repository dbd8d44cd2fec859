// An item's chain of DATACHUNK records: how long the item is, and single pages of it in memory.
// Callers hold the instance's lock.
#pragma once

#include "file/format.h"
#include "records/export.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

extern "C" {

// Sets the size of an item that has no page in memory and gives it one: the first when `flags` has
// kRead, else the last. 0; -1 when memory runs out; kUnreadable; or kFileNotOpen when the tree has
// neither file nor blob. On failure the item is left as it was.
HX_EXPORT int32_t loadItem(ItemMember* item, uint32_t flags);

// The same for an item of a blob's tree: its page points into the blob. Without kRead an item of
// more than one page gets none. `loadItem` passes such items on to it.
HX_EXPORT int32_t loadItemFromMemory(ItemMember* item, uint32_t flags);

}  // extern "C"

// A record of an item's chain, and where.
struct ChunkPlace {
  int64_t offset;
  int32_t index;
  DataChunk chunk;
};

// The record at `offset`, the item's `index`-th, ready for use; false when it can't be read, when
// its page does not lie in the file, or when it breaks the rules of a chain.
bool readChunk(const ItemMember* item, int64_t offset, int32_t index, ChunkPlace* place);

// The same of a record that was read as it stands into `place`.
bool acceptChunk(const ItemMember* item, ChunkPlace* place);

// Every full page needs a record and a block of its own, so a chain of more pages than these goes
// in circles.
int64_t mostPages(const ItemMember* item);

// A page in no list yet, with room for its bytes unless they lie in a blob; null without memory.
PageBuf* newPage(const ItemMember* item);

// Makes a new page that of the record. A page of a blob has its bytes then.
void describePage(const ItemMember* item, PageBuf* page, const ChunkPlace& place);

// The same, and reads the bytes: kOk or kUnreadable.
Status fillPage(const ItemMember* item, PageBuf* page, const ChunkPlace& place);

// A new page, filled; null with kNoMemory or kUnreadable.
PageBuf* loadPage(const ItemMember* item, const ChunkPlace& place, Status* status);

// Loads page 0 anew in front of the list of an item whose other pages are in memory.
Status loadFirstPage(ItemMember* item);

// Whether the file has all of the block of the item's last page, which is in memory. A page that is
// continued is written back whole; of a block that was cut off, the file may have handed out the
// rest again.
bool canBeContinued(const ItemMember* item);

// Frees a page that is in no list.
void freePage(const ItemMember* item, PageBuf* page);

}  // namespace hx
