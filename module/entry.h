// The module's entry points: how a host introduces itself and gets its instance.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx {

constexpr int32_t kVersionSlots = 26;

extern "C" {

// The host, as last handed over; read by the factory alone.
HX_EXPORT extern HostHandle* Exported_HXHandle;

// Takes the host's handle, replacing an earlier one. Returns 0.
HX_EXPORT int32_t hxmodent(HostHandle* host);

// As hxmodent, and reports the interface version, 6.1. Returns 0.
HX_EXPORT int32_t hxmodver(HostHandle* host, int64_t* major, int64_t* minor);

// Copies the version record: 26 words, most of them pointers to strings in the module. Returns 0.
HX_EXPORT int32_t hxrelct1(int64_t* slots);

// The factory: a new instance with a pool, a lock, both extensions and an identity of its own, or
// null with everything released again. Needs a host; its slot `destroy` ends it.
HX_EXPORT ExtensionInstance* hxcrate();

HX_EXPORT int32_t hxcrateGetReqVersion(void* instance, int64_t* a, int64_t* b, int64_t* c);
HX_EXPORT int32_t hxcrateGetVersion(void* instance, int64_t* a, int64_t* b, int64_t* c);

// Drops extensions, lock and pool, and with the pool every record. Closes and writes nothing.
HX_EXPORT int32_t hxcrateRealDestroy(void* instance);

}  // extern "C"

}  // namespace hx
