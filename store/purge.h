// Releases the memory of stores. Callers hold the instance's lock, unless nobody else can reach the
// tree.
#pragma once

#include "records/records.h"

namespace hx {

// Ends a top-level store whose file is closed: releases its converters and free list and purges it.
// While an item handle is open in its tree the store only leaves its table, and the close of the
// last handle purges it.
void dropStore(Store* root);

// Called when an item handle of the tree was closed. Behind the last one of a closed store it
// releases the converters that reads have made since, and purges the store if it was dropped.
void endLastHandle(Store* root);

// Takes a store whose openers are gone out of its table, if it is in one, and frees it with
// everything below it. Closes no file and releases no converter.
void purgeStore(Store* store);

// Frees every member below a store, to any depth.
void freeMembers(Store* store);

}  // namespace hx
