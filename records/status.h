// The status codes that every operation reports, and the flags that opens take.
#pragma once

#include <stdint.h>

namespace hx {

// A signed 32-bit status: 0 is success, failures are negative. A replacing open can also report
// one of the host's HX_REMOVE_ codes (host/file_io.h).
enum Status : int32_t {
  kOk = 0,
  kNotFound = -1,        // no such store or member and no create request; end of an enumeration
  kExists = -2,          // exclusive was asked for, or the name belongs to the other kind
  kNoMemory = -3,        // an allocation failed; reading: no conversion; writing: no page, or full
  kNotLocked = -4,       // the instance's lock was not taken
  kNoStore = -5,         // items live only inside a store
  kEndOfItem = -6,       // the item ends before the request does; exactly where it does gives kOk
  kItemInUse = -7,       // a writer holds the item, or anyone while it is opened for writing
  kFileNotOpen = -8,     // the store's file did not open, or is closed
  kOtherEncoding = -9,   // a store of another encoding can't be updated
  kStoreInUse = -10,     // the store is open, or one of its items is
  kContradiction = -11,  // flags that exclude each other, or writing where nothing can be written
  kNameTooLong = -12,    // a path component of 64 or more characters before a "/"
  kUnreadable = -13,     // the store's data are damaged or can't be converted
  kPageSizeFixed = -14,  // the page size is already set
};

// Flags of the opens; they combine. kRead with kUpdate, and kUpdate with kReplace and kExclusive,
// contradict each other.
enum OpenFlag : uint32_t {
  kRead = 1,
  kUpdate = 2,
  kCreate = 4,      // with kUpdate: create what does not exist
  kReplace = 8,     // with kUpdate, top-level stores: drop the old store and its file first
  kExclusive = 16,  // fail when it exists
  kNoFile = 32,     // touch no file; a store created with it lives in memory
};

constexpr bool has(uint32_t flags, uint32_t wanted) {
  return (flags & wanted) == wanted;
}

constexpr bool contradictory(uint32_t flags) {
  return has(flags, kRead | kUpdate) || has(flags, kUpdate | kReplace | kExclusive);
}

}  // namespace hx
