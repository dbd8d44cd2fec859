// Files of paths or globs.
#pragma once

#include <string>
#include <vector>

namespace tool {

// What stands in the file `path`, or in standard input for "-", up to each `end` or the end of the
// file, but for what is empty. Throws a Failure.
std::vector<std::string> readList(const std::string& path, char end);

}  // namespace tool
