// Which members of a store are meant.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tool {

class MemberSelection {
 public:
  // Items, and stores with all that they hold; none of them: everything.
  explicit MemberSelection(std::vector<std::string> paths) : paths_(std::move(paths)) {}

  // Whether the member at `place` is meant, or is a store on the way to one that is.
  bool wants(std::string_view place, bool isStore) const {
    return paths_.empty() || std::any_of(paths_.begin(), paths_.end(), [&](const auto& path) {
             return place == path || holds(path, place) || (isStore && holds(place, path));
           });
  }

 private:
  static bool holds(std::string_view store, std::string_view member) {
    return member.size() > store.size() && member[store.size()] == '/' &&
           member.substr(0, store.size()) == store;
  }

  std::vector<std::string> paths_;
};

}  // namespace tool
