// hxcrate stat: what is in a store file, in numbers.
#pragma once

#include <string>

#include "report.h"

namespace tool {

struct StatOptions {
  std::string store;
  bool asJson = false;
};

// Prints the numbers; of a damaged store those of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode statStore(const StatOptions& options);

}  // namespace tool
