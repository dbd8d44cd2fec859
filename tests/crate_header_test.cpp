// module/crate.h says in C what records/records.h, records/status.h and module/entry.h say in C++.
// The compiler compares what examples/memory_host.c, run against the module, does not use.
#include "module/crate.h"

#include <array>
#include <cstddef>

#include "item/item_view.h"
#include "module/entry.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

static_assert(offsetof(CrateInstance, encodingId) == offsetof(ExtensionInstance, encodingId));
static_assert(offsetof(CrateInstance, openView) == offsetof(ExtensionInstance, openView));
static_assert(offsetof(CrateInstance, readItem) == offsetof(ExtensionInstance, readItem));
static_assert(offsetof(CrateInstance, sizeOfItem) == offsetof(ExtensionInstance, sizeOfItem));
static_assert(offsetof(CrateInstance, findMember) == offsetof(ExtensionInstance, findMember));
static_assert(offsetof(CrateView, readAt) == offsetof(ItemView, readAt));
static_assert(offsetof(CrateView, size) == offsetof(ItemView, size));
static_assert(offsetof(CrateView, bytesAt) == offsetof(ItemView, bytesAt));
static_assert(offsetof(CrateView, close) == offsetof(ItemView, close));
static_assert(offsetof(CrateStore, nameLength) == offsetof(Store, nameLength));
static_assert(offsetof(CrateStore, kind) == offsetof(Store, kind));
static_assert(offsetof(CrateStore, openCount) == offsetof(Store, openCount));
static_assert(offsetof(CrateStore, path) == offsetof(Store, path));
static_assert(offsetof(CrateStore, setPageSize) == offsetof(Store, setPageSize));
static_assert(offsetof(CrateStore, pageSize) == offsetof(Store, pageSize));
static_assert(offsetof(CrateStore, blobSize) == offsetof(Store, blobSize));
static_assert(offsetof(CrateItem, nameLength) == offsetof(ItemMember, nameLength));
static_assert(offsetof(CrateItem, openCount) == offsetof(ItemMember, openCount));
static_assert(offsetof(CrateHandle, position) == offsetof(ItemHandle, position));

using Codes = std::array<int32_t, 22>;
static_assert(
    Codes{HX_OK,           HX_NOT_FOUND,     HX_EXISTS,        HX_NO_MEMORY,     HX_NOT_LOCKED,
          HX_NO_STORE,     HX_END_OF_ITEM,   HX_ITEM_IN_USE,   HX_FILE_NOT_OPEN, HX_OTHER_ENCODING,
          HX_STORE_IN_USE, HX_CONTRADICTION, HX_NAME_TOO_LONG, HX_UNREADABLE,    HX_PAGE_SIZE_FIXED,
          HX_READ,         HX_UPDATE,        HX_CREATE,        HX_REPLACE,       HX_EXCLUSIVE,
          HX_NO_FILE,      HX_VERSION_SLOTS} ==
    Codes{kOk,          kNotFound,   kExists,        kNoMemory,      kNotLocked,  kNoStore,
          kEndOfItem,   kItemInUse,  kFileNotOpen,   kOtherEncoding, kStoreInUse, kContradiction,
          kNameTooLong, kUnreadable, kPageSizeFixed, kRead,          kUpdate,     kCreate,
          kReplace,     kExclusive,  kNoFile,        kVersionSlots});

}  // namespace hx
