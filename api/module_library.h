// The shared library that the module is.
#pragma once

#include <string>
#include <string_view>

#include "host/kernel.h"
#include "records/records.h"

namespace hxcrate {

// The path of `file` in the folder of the library that this code is in. Throws noModule.
std::string locateBesideSelf(const char* file);

// A new instance of the module that is served by `host`. Loads the library at the first call and
// keeps it for good. Throws noModule. Safe for several threads.
hx::ExtensionInstance* makeModuleInstance(hx::HostHandle* host);

// Writes header and directory of a tree into its file and leaves it open for update; false when it
// is not. With the instance's lock held.
bool writeBack(hx::Store* root);

// Drops a closed store file from the instance's memory, if it is there; the file stays.
void forgetStore(hx::ExtensionInstance* instance, std::u32string_view name);

}  // namespace hxcrate
