// The module as a host written in C sees it: its entry points, the records behind which its
// operations stand, status codes and flags. The same binary interface as module/entry.h,
// records/records.h and records/status.h, which are C++ and tell more; only what a host may read or
// call is named here. A test compares every offset and value.
#pragma once

#include "host/encoding.h"
#include "host/file_io.h"
#include "host/kernel.h"

#ifdef __cplusplus
namespace hx {
extern "C" {
#endif

typedef struct CrateInstance CrateInstance;
typedef struct CrateStore CrateStore;
typedef struct CrateItem CrateItem;
typedef struct CrateHandle CrateHandle;
typedef struct CrateView CrateView;

enum {
  HX_OK = 0,
  HX_NOT_FOUND = -1,
  HX_EXISTS = -2,
  HX_NO_MEMORY = -3,
  HX_NOT_LOCKED = -4,
  HX_NO_STORE = -5,
  HX_END_OF_ITEM = -6,
  HX_ITEM_IN_USE = -7,
  HX_FILE_NOT_OPEN = -8,
  HX_OTHER_ENCODING = -9,
  HX_STORE_IN_USE = -10,
  HX_CONTRADICTION = -11,
  HX_NAME_TOO_LONG = -12,
  HX_UNREADABLE = -13,
  HX_PAGE_SIZE_FIXED = -14
};

enum {
  HX_READ = 1,
  HX_UPDATE = 2,
  HX_CREATE = 4,
  HX_REPLACE = 8,
  HX_EXCLUSIVE = 16,
  HX_NO_FILE = 32
};

enum { HX_STORE_KIND = 1, HX_ITEM_KIND = 2, HX_VERSION_SLOTS = 26 };

// What the factory makes. Names are UTF-32 with their length in characters; every `status` is
// written, and a null result comes with a negative one.
struct CrateInstance {
  ObjectHead head;
  uint8_t reserved56[608 - sizeof(ObjectHead)];
  uint8_t encodingId[HX_ENCODING_ID_LENGTH];
  int64_t reserved632[4];
  // Without a parent `name` is the path of the store's file, with one a path inside the parent.
  CrateStore* (*openStore)(CrateInstance* instance, CrateStore* parent, const char32_t* name,
                           int32_t length, uint32_t flags, int32_t* status);
  CrateHandle* (*openItem)(CrateInstance* instance, CrateStore* store, const char32_t* name,
                           int32_t length, uint32_t flags, int32_t* status);
  // The blob stays the caller's and stays as it is until the store is closed.
  CrateStore* (*openStoreFromMemory)(CrateInstance* instance, const void* blob, uint64_t size,
                                     const char32_t* name, int32_t length, uint32_t flags,
                                     int32_t* status);

  // Additions of this module, which others of its kind need not have. An item is opened for reading
  // at any place; it counts as a reader.
  CrateView* (*openView)(CrateInstance* instance, CrateStore* store, const char32_t* name,
                         int32_t length, int32_t* status);
  // All of an item of one page without opening it, in one call of the host; bytes, which `size`
  // tells, too. It is -1, with HX_OK, when the item has to be opened instead.
  int32_t (*readItem)(CrateInstance* instance, CrateStore* store, const char32_t* name,
                      int32_t length, void* buffer, int32_t capacity, int64_t* size,
                      int32_t* status);
  int64_t (*sizeOfItem)(CrateItem* item, int32_t* status);  // bytes; -1 with a negative status
  // A CrateStore or a CrateItem, as its kind says, which is not opened; null when there is none.
  void* (*findMember)(CrateStore* store, const char32_t* name, int32_t length, int32_t* status);
};

struct CrateStore {
  const char32_t* name;  // null when empty
  void* reserved8;
  int32_t nameLength;
  int32_t kind;  // HX_STORE_KIND
  uint8_t reserved24[536];
  int32_t openCount;
  uint8_t reserved564[76];
  void (*closeStore)(CrateStore* store);
  void (*closeAndDeleteStore)(CrateStore* store);
  // The member behind the one named, the first for length 0; HX_NOT_FOUND behind the last. The
  // longest name must fit `nameOut`: 64 characters, unless longer ones were made in this process.
  int32_t (*getNextMember)(CrateStore* store, const char32_t* name, int32_t length,
                           char32_t* nameOut, int32_t* lengthOut, int32_t* kindOut);
  uint32_t reserved664;
  // `length` is the capacity of `buffer` in characters, and afterwards what is in it.
  int32_t (*path)(CrateStore* store, char32_t* buffer, int32_t* length);
  int32_t (*setPageSize)(CrateStore* store, int32_t size);
  int32_t pageSize;  // bytes; 0: not yet fixed
  // A block of `pool` that the caller frees; null for a store that has a file.
  void* (*createBlobFromStore)(CrateStore* store, uint64_t* size, Pool* pool);
  uint64_t blobSize;
};

struct CrateItem {
  const char32_t* name;
  void* reserved8;
  int32_t nameLength;
  int32_t kind;  // HX_ITEM_KIND
  uint8_t reserved24[24];
  int32_t size;  // bytes
  uint8_t reserved52[44];
  int32_t openCount;
  // Bytes taken, and read. They mean something whatever the status is.
  int32_t (*write)(CrateHandle* handle, const void* buffer, int32_t length, int32_t* status);
  uint32_t (*read)(CrateHandle* handle, void* buffer, int32_t length, void* conversionArgument,
                   int32_t* status);
  int32_t (*close)(CrateHandle* handle);
};

// One opening of an item; its operations are called as handle->item->read(handle, ...).
struct CrateHandle {
  CrateItem* item;
  int32_t position;
};

// An item opened for reading at any place. Any number of threads may use one, but for its close.
struct CrateView {
  CrateItem* item;
  // Bytes read, which mean something whatever the status is.
  int32_t (*readAt)(CrateView* view, int64_t offset, void* buffer, int32_t length, int32_t* status);
  int64_t (*size)(CrateView* view, int32_t* status);  // bytes; -1 with a negative status
  // Where the byte at `offset` lies in memory, and in `count` how many lie there in a row; null
  // with HX_OK when it lies in a file.
  const void* (*bytesAt)(CrateView* view, int64_t offset, int64_t* count, int32_t* status);
  int32_t (*close)(CrateView* view);  // 0, or the lock's answer, and the view is open still
};

// The entry points by the names to look up: "hxmodent", "hxmodver", "hxrelct1" and "hxcrate".
typedef int32_t HxModent(HostHandle* host);
typedef int32_t HxModver(HostHandle* host, int64_t* major, int64_t* minor);
typedef int32_t HxRelct1(int64_t* slots);  // HX_VERSION_SLOTS of them
typedef CrateInstance* HxCrate(void);

#ifdef __cplusplus
}  // extern "C"
}  // namespace hx
#endif
