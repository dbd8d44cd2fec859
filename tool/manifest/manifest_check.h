// Whether a store's items have the bytes that its own manifest has checksums of.
#pragma once

#include "tool/files/inspected_store.h"

namespace tool {

// Adds what is wrong to what was found in the store. Nothing where it has no manifest.
void checkManifest(InspectedStore& store);

}  // namespace tool
