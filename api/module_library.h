// The shared library that the module is.
#pragma once

#include "host/kernel.h"
#include "records/records.h"

namespace hxcrate {

// A new instance of the module that is served by `host`. Loads the library at the first call and
// keeps it for good. Throws noModule. Safe for several threads.
hx::ExtensionInstance* makeModuleInstance(hx::HostHandle* host);

}  // namespace hxcrate
