// hxcrate pack: a tree of directories becomes one store file.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

struct PackOptions {
  std::string store;
  std::string directory;
  bool replace = false;
  bool inMemory = false;      // built as a blob and written in one piece
  std::int32_t pageSize = 0;  // bytes; 0: the store's usual one
};

// Equal trees give equal files. The file takes its name when it is complete and on disk, so a pack
// that fails leaves what was there. Throws Failure or hxcrate::Error.
void pack(const PackOptions& options);

}  // namespace tool
