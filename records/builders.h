// One builder for each record that several places make, and what frees it. A builder sets what
// holds for every record of its kind; the rest is zero. Null: the pool has no memory. Callers hold
// the instance's lock, or the tree is still nobody else's.
#pragma once

#include "records/records.h"

namespace hx {

// A store inside `parent`, or a top-level store when that is null; in no table yet.
Store* newStore(ExtensionInstance* instance, Store* parent);

// An item of a store, without name and pages; in no table yet.
ItemMember* newItem(Store* parent);

// A page in no list yet, with room for its bytes unless they lie in a blob.
PageBuf* newPage(const ItemMember* item);

void freePage(const ItemMember* item, PageBuf* page);

// With its name and pages. The item is in no table.
void freeItem(ItemMember* item);

// Give records the slots of their operations (module/slots.cpp). An item of a blob's tree gets no
// `write`.
void fillStoreSlots(Store* store);
void fillItemSlots(ItemMember* item);

}  // namespace hx
