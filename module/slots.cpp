#include "blob/create_blob.h"
#include "item/open_item.h"
#include "item/read_item.h"
#include "item/write_item.h"
#include "records/builders.h"
#include "store/close_store.h"
#include "store/enumerate.h"
#include "store/page_size.h"
#include "store/store_path.h"

namespace hx {

void fillStoreSlots(Store* store) {
  store->closeStore = hxcrateCloseStore;
  store->closeAndDeleteStore = hxcrateCloseAndDeleteStore;
  store->getNextMember = hxcrateGetNextMember;
  store->path = hxcratePath;
  store->setPageSize = hxcrateSetPageSize;
  store->createBlobFromStore = hxcrateCreateBlobFromStore;
}

void fillItemSlots(ItemMember* item) {
  item->write = (item->flags & kMemoryBacked) != 0 ? nullptr : hxcrateWrite;
  item->read = hxcrateRead;
  item->close = hxcrateCloseItem;
}

}  // namespace hx
