// hxcrate check: what is wrong with a store file.
#pragma once

#include <string>

#include "report.h"

namespace tool {

struct CheckOptions {
  std::string store;
  bool quick = false;  // header and directory, no item's pages
  bool asJson = false;
};

// Prints each rule of the format that is broken, "OFFSET PLACE: SEVERITY: what was found", and a
// summary on standard error. Damaged after an error, fine else. Throws Failure or hxcrate::Error.
ExitCode check(const CheckOptions& options);

}  // namespace tool
