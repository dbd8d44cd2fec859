// An item's chain of DATACHUNK records in its file or blob. Callers hold the instance's lock.
#pragma once

#include "file/format.h"
#include "records/records.h"

namespace hx {

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

// Reads the item's first record; false as for readChunk.
bool readFirstChunk(const ItemMember* item, ChunkPlace* place);

// Goes on from a record to the last one of the chain, and returns the size of all pages from there
// on; -1 when a record can't be had, or when they are more than an item may have.
int64_t goToLastChunk(const ItemMember* item, ChunkPlace* place);

// How many bytes of a page's block are read: an item's only page may have been stored short.
int64_t bytesToRead(const ChunkPlace& place);

}  // namespace hx
