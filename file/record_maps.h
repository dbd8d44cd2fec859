// What a converter is told about each record of the format.
#pragma once

#include "host/encoding.h"
#include "records/export.h"

namespace hx {

extern "C" {

HX_EXPORT extern const RecordMapEntry HEADER_map[6];
HX_EXPORT extern const RecordMapEntry ENTRY_map[8];
HX_EXPORT extern const RecordMapEntry DATACHUNK_map[7];

}  // extern "C"

static_assert(sizeof(HEADER_map) == 24);
static_assert(sizeof(ENTRY_map) == 32);
static_assert(sizeof(DATACHUNK_map) == 28);

}  // namespace hx
