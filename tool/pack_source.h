// A tree of directories as it is going to be packed.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace tool {

// One step of the walk through the tree, depth first, by the bytes of the names.
struct SourceStep {
  enum class Kind { enterDirectory, leaveDirectory, file };
  Kind kind;
  std::string name;         // empty when leaving
  struct stat status = {};  // of a file, when it was found
};

struct Source {
  std::vector<SourceStep> steps;
  bool isWhole = true;  // nothing was left out
};

// Walks the tree below `directory`, but for the file `except`. What the format can't keep is named
// on standard error, every one, and then ends the command with nothing done; links, devices,
// sockets and FIFOs are named and left out.
Source scanTree(const std::string& directory, const std::optional<struct stat>& except);

}  // namespace tool
