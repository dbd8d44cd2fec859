// A tree of directories as it is going to be packed.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "selection.h"
#include "source_list.h"

namespace tool {

// One step of the walk through the tree, depth first, by the bytes of the names.
struct SourceStep {
  enum class Kind { enterDirectory, leaveDirectory, file, link };
  Kind kind;
  std::string name;         // empty when leaving
  struct stat status = {};  // when it was found
  std::size_t end = 0;      // of a directory: the step that leaves it
  std::string target = {};  // of a symbolic link
};

struct Source {
  std::vector<SourceStep> steps;
  std::optional<struct stat> top = {};  // of the directory, when it is packed itself
  bool isWhole = true;                  // nothing was left out
};

struct ScanOptions {
  SelectionOptions selected;
  // Leave out what can't be kept or read rather than end the command.
  bool skip = false;
  // Take symbolic links, and not the file that would be called as the manifest.
  bool withAttributes = false;
};

// Names on standard error what is left out.
void complainOfSkipped(const std::string& path, const std::string& reason);

// Walks the tree that `list` names, but for the file `except`. What the format can't keep and what
// can't be read is named on standard error, every one, and then ends the command with nothing done;
// devices, sockets, FIFOs and, without attributes, links are named and left out.
Source scanTree(const SourceList& list, const ScanOptions& options,
                const std::optional<struct stat>& except);

}  // namespace tool
