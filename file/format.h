// The three records of a store file, and of a blob, which is the image of one. All integers are in
// the writer's own representation; offsets are absolute and 0 means none. Records and pages are
// packed one after the other in the order in which space was asked for.
#pragma once

#include "records/records.h"

namespace hx {

// The file's first 40 bytes.
//   off width field            rule
//     0   24  encodingId       the writer's; a reader whose own differs converts every record
//    24    8  pageSizeCode     0: 4096; negative: the page size negated; positive: read as 4096
//    32    8  directoryOffset  the top-level store's ENTRY; 0: the store has no directory
struct Header {
  EncodingId encodingId;
  int64_t pageSizeCode;
  int64_t directoryOffset;
};

constexpr int32_t kStoredNameLength = 64;

// One member of the tree; the top-level store has one too. The kind stands only in the sign of the
// link that leads here.
//   off width field         rule
//     0    8  parentLink    the containing store's ENTRY; 0 at the top; no reader uses it
//     8    8  previousLink  item: the member written before it; nested store: the nested store
//                           written before it; 0 for none; no reader uses it
//    16    8  next          link to the next member of the same store
//    24    8  firstLink     store: link to its first member; item: its first DATACHUNK
//    32   64  name          one byte a character, padded with zeros; not terminated when full
struct Entry {
  int64_t parentLink;
  int64_t previousLink;
  int64_t next;
  int64_t firstLink;
  uint8_t name[kStoredNameLength];
};

// One page of an item.
//   off width field       rule
//     0    8  dataOffset  where the page's bytes lie
//     8    4  capacity    the page size; 0 only in the all-zero record of an item never written to
//    12    4  used        the page size in every page but the last
//    16    8  next        the following page's record; 0 in the last
struct DataChunk {
  int64_t dataOffset;
  int32_t capacity;
  int32_t used;
  int64_t next;
};

static_assert(sizeof(Header) == 40);
static_assert(offsetof(Header, encodingId) == 0);
static_assert(offsetof(Header, pageSizeCode) == 24);
static_assert(offsetof(Header, directoryOffset) == 32);
static_assert(sizeof(Entry) == 96);
static_assert(offsetof(Entry, parentLink) == 0);
static_assert(offsetof(Entry, previousLink) == 8);
static_assert(offsetof(Entry, next) == 16);
static_assert(offsetof(Entry, firstLink) == 24);
static_assert(offsetof(Entry, name) == 32);
static_assert(sizeof(DataChunk) == 24);
static_assert(offsetof(DataChunk, dataOffset) == 0);
static_assert(offsetof(DataChunk, capacity) == 8);
static_assert(offsetof(DataChunk, used) == 12);
static_assert(offsetof(DataChunk, next) == 16);
static_assert(sizeof(FileStamp::header) == sizeof(Header));

constexpr int32_t kHeaderSize = sizeof(Header);
constexpr int32_t kEntrySize = sizeof(Entry);
constexpr int32_t kChunkSize = sizeof(DataChunk);
constexpr int32_t kDefaultPageSize = 4096;

// Links to members: positive to an item's ENTRY, below -1 to a nested store's, negated; 0 and -1
// (which is never written) end a chain.
constexpr bool endsChain(int64_t link) {
  return link == 0 || link == -1;
}
constexpr bool leadsToItem(int64_t link) {
  return link > 0;
}

// Where the ENTRY lies that a link leads to. The smallest number has no absolute value; it leads
// out of every file.
constexpr int64_t targetOf(int64_t link) {
  if (link >= 0) return link;
  return link == INT64_MIN ? INT64_MAX : -link;
}

constexpr int64_t pageSizeCodeOf(int32_t pageSize) {
  if (pageSize == 0 || pageSize == kDefaultPageSize) return 0;
  return -static_cast<int64_t>(pageSize);
}

// The page size that a code stands for, or 0 when it stands for none.
constexpr int32_t pageSizeFromCode(int64_t code) {
  if (code >= 0) return kDefaultPageSize;
  return code < -INT64_C(0x7fffffff) ? 0 : static_cast<int32_t>(-code);
}

inline int32_t storedNameLength(const uint8_t (&field)[kStoredNameLength]) {
  int32_t length = 0;
  while (length < kStoredNameLength && field[length] != 0)
    ++length;
  return length;
}

}  // namespace hx
