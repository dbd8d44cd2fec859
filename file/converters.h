// The two converters of a tree whose data are in another encoding than the instance's. They live on
// the top-level store, are made on first need and released when its last opener leaves, and once
// more with the last item handle that is closed behind it. Making one needs the instance's lock.
#pragma once

#include "records/records.h"

namespace hx {

// True when the store's data and the instance have different encodings.
bool isForeign(const Store* store);

// The tree's converter, or null when the host has none for the pair.
Converter* storeToInstanceConverter(Store* store);
Converter* instanceToStoreConverter(Store* store);

void releaseConverters(Store* root);

}  // namespace hx
