// Files of paths or globs.
#pragma once

#include <string>
#include <vector>

#include "directory.h"

namespace tool {

// The file `path`, or standard input for "-", which can be one file of a command only. Throws a
// Failure.
Descriptor openList(const std::string& path);

// What stands in the file `path`, or in standard input for "-", up to each `end` or the end of the
// file, but for what is empty. Throws a Failure.
std::vector<std::string> readList(const std::string& path, char end);

}  // namespace tool
