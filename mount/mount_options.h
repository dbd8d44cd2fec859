// The words that the program was called with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mount/store_tree.h"

namespace mounted {

struct MountOptions {
  std::vector<Source> sources;
  std::string mountPoint;
  std::vector<std::string> systemOptions;  // each of one -o, as for mount(8)
  int idleSeconds = 0;                     // 0: stay
  std::int64_t waitSeconds = 0;            // for who has a store open
  bool inForeground = false;
  bool isDebugged = false;
};

// Nothing when the words only asked for help or were wrong, after that was printed; `exitCode` is
// what the program ends with then.
std::optional<MountOptions> readOptions(int argc, char** argv, int& exitCode);

}  // namespace mounted
