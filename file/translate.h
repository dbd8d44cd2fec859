#pragma once

#include "host/encoding.h"
#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Makes a record that was read as it stands usable: converts it in place when its store's encoding
// differs from the instance's. 0 when it is ready, -1 when no conversion took place (the length is
// outside 0 to 256, or the host has no converter). The caller holds the instance's lock, or the
// tree is still nobody else's.
HX_EXPORT int32_t translateStructure(Store* store, void* record, int32_t length,
                                     const RecordMapEntry* map);

}  // extern "C"

}  // namespace hx
