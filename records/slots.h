// Gives records the slots of their operations, so that whoever makes a record need not know them.
#pragma once

#include "records/records.h"

namespace hx {

void fillStoreSlots(Store* store);

// An item of a blob's tree gets no `write`.
void fillItemSlots(ItemMember* item);

}  // namespace hx
