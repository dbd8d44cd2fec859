// What a command line and lists of files name as the parts of a tree.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// A directory or file below the root of a tree.
struct SourceEntry {
  bool isNamed = false;  // rather than on the way to what is
  bool isWhole = false;  // with all that it holds
  std::map<std::string, SourceEntry, std::less<>> below;
};

struct SourceList {
  struct Options {
    std::vector<std::string> paths;
    std::vector<std::string> lists;  // files of paths; "-": standard input
    bool nulSeparated = false;       // their paths, instead of one a line
    bool isShallow = false;          // a directory does not stand for all that it holds
  };

  // One path alone, with no lists, is the root itself; else all are below a common root.
  // Throws a Failure for paths that no tree has.
  explicit SourceList(const Options& options);

  std::string root;
  SourceEntry top;

 private:
  void add(std::string_view path, bool isWhole);

  bool hasRoot_ = false;
};

}  // namespace tool
