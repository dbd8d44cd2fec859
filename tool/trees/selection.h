// Which members of a tree are meant.
#pragma once

#include <archive.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct archive_entry;

namespace tool {

// Globs as the archive library matches them.
struct FreeMatching {
  void operator()(archive* globs) const;
  void operator()(archive_entry* entry) const;
};
using Globs = std::unique_ptr<archive, FreeMatching>;

// Globs, and files that hold one a line; "-": standard input.
struct SelectionOptions {
  std::vector<std::string> includes;
  std::vector<std::string> excludes;
  std::vector<std::string> includesFrom;
  std::vector<std::string> excludesFrom;
};

// A store that is meant is so with all that it holds, but for what is excluded. A member has to be
// meant by the paths and by the globs to include, where there are such.
class Selection {
 public:
  enum class Verdict {
    no,
    onTheWay,  // a store that may hold what is meant, and is wanted only if it does
    yes
  };

  // `paths`: of members, as they are. Throws a Failure for a file that can't be read or an empty
  // glob.
  explicit Selection(const SelectionOptions& options = {}, std::vector<std::string> paths = {});

  bool isEverything() const { return paths_.empty() && !hasIncludes_ && !hasExcludes_; }

  // By the member's path in the tree.
  Verdict judge(const std::string& place, bool isStore) const;

 private:
  Verdict judgeByPaths(std::string_view place, bool isStore) const;

  std::vector<std::string> paths_;
  bool hasIncludes_;
  bool hasExcludes_;
  Globs includes_;
  Globs excludes_;
  std::unique_ptr<archive_entry, FreeMatching> entry_;  // what the globs are asked about
};

}  // namespace tool
