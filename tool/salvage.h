// hxcrate salvage: what can be read of a damaged store file becomes a new one.
#pragma once

#include <cstdint>
#include <string>

#include "report.h"

namespace tool {

struct SalvageOptions {
  std::string store;
  std::string target;         // a new file
  std::string encoding;       // of the damaged one, when its header does not tell; empty: it does
  std::int32_t pageSize = 0;  // the same, in bytes; 0: it does
};

// Prints what was lost, what of an item was kept, and what got another name, a line each; nothing
// when all was kept. Members that no link leads to any more come into a store "lost+found" of the
// new one. Partial when anything was lost or found there. Throws Failure or hxcrate::Error; then
// there is no new file.
ExitCode salvage(const SalvageOptions& options);

}  // namespace tool
