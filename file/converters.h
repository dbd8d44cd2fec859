// The two converters of a tree whose data are in another encoding than the instance's. They live on
// the top-level store, are made on first need and released when its last opener leaves, and once
// more with the last item handle that is closed behind it.
#pragma once

#include "records/records.h"

namespace hx {

enum class Direction { toInstance, toStore };

// True when the store's data and the instance have different encodings.
bool isForeign(const Store* store);

// The tree's converter if there is one by now. Needs no lock.
Converter* keptConverter(const Store* store, Direction direction);

// The tree's converter, made if there is none; null when the host has none for the pair. The caller
// holds the instance's lock, or the tree is still nobody else's.
Converter* makeConverter(Store* store, Direction direction);

void releaseConverters(Store* root);

}  // namespace hx
