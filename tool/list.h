// hxcrate ls and hxcrate cat: what is in a store file, on standard output.
#pragma once

#include <string>

#include "report.h"

namespace tool {

struct ListOptions {
  std::string store;
  std::string path;  // of a member; empty: the store itself
  bool withSizes = false;
  bool recursive = false;
};

// One member a line, by the bytes of the names; a nested store's name ends in "/". Throws Failure
// or hxcrate::Error.
ExitCode list(const ListOptions& options);

// The bytes of an item. Throws Failure or hxcrate::Error.
ExitCode printItem(const std::string& store, const std::string& path);

}  // namespace tool
