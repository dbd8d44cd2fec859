// hxcrate pack: a tree of directories becomes one store file.
#pragma once

#include <string>

namespace tool {

struct PackOptions {
  std::string store;
  std::string directory;
  bool replace = false;
};

// Equal trees give equal files. The file takes its name when it is complete and on disk, so a pack
// that fails leaves what was there. Throws Failure or hxcrate::Error.
void pack(const PackOptions& options);

}  // namespace tool
