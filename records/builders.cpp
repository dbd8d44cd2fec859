#include "records/builders.h"

#include "records/memory.h"

namespace hx {

Store* newStore(ExtensionInstance* instance, Store* parent) {
  auto* store = allocateRecord<Store>(instance->pool);
  if (store == nullptr) return nullptr;
  store->kind = kStoreKind;
  store->extension = instance;
  store->parent = parent;
  store->root = parent != nullptr ? parent->root : store;
  fillStoreSlots(store);
  return store;
}

ItemMember* newItem(Store* parent) {
  auto* item = allocateRecord<ItemMember>(parent->extension->pool);
  if (item == nullptr) return nullptr;
  item->kind = kItemKind;
  item->pool = parent->extension->pool;
  item->extension = parent->extension;
  item->parent = parent;
  if (isInBlob(parent)) item->flags = kMemoryBacked;
  fillItemSlots(item);
  return item;
}

PageBuf* newPage(const ItemMember* item) {
  auto* page = allocateRecord<PageBuf>(item->pool);
  if (page == nullptr || isInBlob(item->parent)) return page;
  const auto pageSize = static_cast<uint64_t>(pageSizeOf(item));
  page->buffer = static_cast<uint8_t*>(allocateBlock(item->pool, pageSize));
  if (page->buffer != nullptr) return page;
  freeBlock(item->pool, page);
  return nullptr;
}

void freePage(const ItemMember* item, PageBuf* page) {
  if ((item->flags & kMemoryBacked) == 0) freeBlock(item->pool, page->buffer);
  freeBlock(item->pool, page);
}

void freeItem(ItemMember* item) {
  Pool* pool = item->pool;
  while (item->firstPage != nullptr) {
    PageBuf* page = item->firstPage;
    item->firstPage = page->next;
    freePage(item, page);
  }
  freeBlock(pool, item->name);
  freeBlock(pool, item);
}

}  // namespace hx
