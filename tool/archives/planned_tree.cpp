#include "planned_tree.h"

#include <fmt/format.h>

#include <algorithm>

#include "hxcrate/store.hpp"

namespace tool {

namespace {

std::string_view takeName(std::string_view& path) {
  const std::size_t length = std::min(path.find('/'), path.size());
  const std::string_view name = path.substr(0, length);
  path.remove_prefix(std::min(length + 1, path.size()));
  return name;
}

}  // namespace

std::optional<std::string> PlannedTree::add(std::string_view path, bool isFolder) {
  for (std::string_view rest = path; !rest.empty();) {
    const std::size_t length = takeName(rest).size();
    if (length <= hxcrate::kNameCapacity) continue;
    return fmt::format("a name of {} bytes, at most {} fit", length, hxcrate::kNameCapacity);
  }
  std::size_t folder = 0;
  while (!path.empty()) {
    const std::string_view name = takeName(path);
    const bool isLast = path.empty();
    const bool wantsFolder = isFolder || !isLast;
    const auto [node, isNew] =
        nodes_.try_emplace(Key(folder, name), Node{nodes_.size() + 1, wantsFolder});
    if (isNew && wantsFolder) ++folders_;
    folder = node->second.number;
    if (isNew || (wantsFolder && node->second.isFolder)) continue;
    return isLast ? "there is another one of this name" : "it lies in what is no folder";
  }
  return std::nullopt;
}

bool PlannedTree::hasFolder(std::string_view path) const {
  std::size_t folder = 0;
  while (!path.empty()) {
    const auto node = nodes_.find(Key(folder, takeName(path)));
    if (node == nodes_.end() || !node->second.isFolder) return false;
    folder = node->second.number;
  }
  return true;
}

}  // namespace tool
