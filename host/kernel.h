// What the module asks of its host's kernel: memory pools, locks and extensions by name.
// Every object is a record of function slots whose first argument is the object itself. The
// header is plain C, so that a host can be written in C or C++; the byte layouts are fixed.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
namespace hx {
extern "C" {
#else
#include <uchar.h>
#endif

typedef struct HostHandle HostHandle;
typedef struct Pool Pool;
typedef struct Lock Lock;

// The first 56 bytes of every object of the host and of the module's own instance.
//   off width field
//     0   4   eyeCatcher          four readable bytes that name the kind of object; never read
//    24   8   getRequiredVersion  may be null
//    32   8   getVersion          may be null
//    48   8   destroy             releases the object; its result is ignored. Null in file handles
//                                 and converters, which have `close` and `release` instead
typedef struct ObjectHead {
  char eyeCatcher[4];
  uint8_t reserved[20];
  int32_t (*getRequiredVersion)(void* object, int64_t* a, int64_t* b, int64_t* c);
  int32_t (*getVersion)(void* object, int64_t* a, int64_t* b, int64_t* c);
  void* reservedSlot;
  int32_t (*destroy)(void* object);
} ObjectHead;

// The host itself, handed to the module through `hxmodent` or `hxmodver`.
struct HostHandle {
  ObjectHead head;
  // A lock, free; null when it can't be made. `parameters` is 24 zero bytes, `zero` is 0 and `name`
  // a NUL-terminated name for the host's own use ("HXCRATE").
  Lock* (*createLock)(HostHandle* host, const void* parameters, int64_t zero, const char* name);
  // An empty pool; null when it can't be made. Arguments as for `createLock` (the name is "Pool").
  Pool* (*createPool)(HostHandle* host, const void* parameters, int64_t zero, const char* name);
  // The extension of that name, `length` characters without a terminator, or null when the host
  // has none. The module asks for "hxfio" (file_io.h) and "hxmok" (encoding.h), once an instance,
  // and destroys what it got.
  void* (*loadExtension)(HostHandle* host, const char32_t* name, int64_t length, int64_t zero);
};

// Asks `allocate` for a zero-filled block. The module always does, and relies on it.
static const uint32_t HX_ALLOCATE_ZEROED = 0x80000000u;

// Memory. Blocks are aligned for every ordinary type. Both operations are called by several threads
// at once. `head.destroy` releases every block that is still allocated.
struct Pool {
  ObjectHead head;
  // `size` bytes, or null.
  void* (*allocate)(Pool* pool, uint64_t size, uint32_t flags);
  // Takes back a block of this pool. The module never passes null.
  void (*free)(Pool* pool, void* block);
};

// Mutual exclusion between threads. The module never takes a lock twice on one path.
struct Lock {
  ObjectHead head;
  // 0 when taken, anything else when not; both arguments are 1.
  int32_t (*acquire)(Lock* lock, int64_t one, int64_t alsoOne);
  // 0 when released. Called by the thread that took it.
  int32_t (*release)(Lock* lock);
};

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(ObjectHead) == 56);
static_assert(offsetof(ObjectHead, getRequiredVersion) == 24);
static_assert(offsetof(ObjectHead, getVersion) == 32);
static_assert(offsetof(ObjectHead, reservedSlot) == 40);
static_assert(offsetof(ObjectHead, destroy) == 48);
static_assert(offsetof(HostHandle, createLock) == 56);
static_assert(offsetof(HostHandle, createPool) == 64);
static_assert(offsetof(HostHandle, loadExtension) == 72);
static_assert(offsetof(Pool, allocate) == 56);
static_assert(offsetof(Pool, free) == 64);
static_assert(offsetof(Lock, acquire) == 56);
static_assert(offsetof(Lock, release) == 64);
}  // namespace hx
#endif
