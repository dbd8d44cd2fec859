// The members of a store that is going to be made from names that come in any order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

// Takes as much memory as the paths that it is asked to add are long.
class PlannedTree {
 public:
  // Adds a member and the folders on the way to it, or says why the store can't have it and adds
  // nothing. A folder may be added again.
  std::optional<std::string> addFolder(std::string_view path) { return add(path, true); }
  std::optional<std::string> addFile(std::string_view path) { return add(path, false); }

  // The empty path is one.
  bool hasFolder(std::string_view path) const;
  std::int64_t folders() const { return folders_; }
  std::int64_t members() const { return static_cast<std::int64_t>(nodes_.size()); }

 private:
  struct Node {
    std::size_t number;
    bool isFolder;
  };
  using Key = std::pair<std::size_t, std::string>;  // the number of the folder; a name in it

  std::optional<std::string> add(std::string_view path, bool isFolder);

  std::map<Key, Node> nodes_;
  std::int64_t folders_ = 0;
};

}  // namespace tool
