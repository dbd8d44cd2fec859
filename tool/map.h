// hxcrate map: who owns every byte of a store file.
#pragma once

#include <string>

#include "report.h"

namespace tool {

struct MapOptions {
  std::string store;
  std::string svg;  // a file to make, "-" for standard output; empty: text
  bool asJson = false;
};

// Prints or draws the map; of a damaged store of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode map(const MapOptions& options);

}  // namespace tool
