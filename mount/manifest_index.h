// What a store's own manifest tells of its members, while they become files and folders.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "hxcrate/view.hpp"
#include "tool/manifest/manifest.h"

namespace mounted {

class ManifestIndex {
 public:
  using Links = std::multimap<std::string_view, const tool::Manifest::Members::value_type*>;

  // Of nothing when the item is closed. One that can't be read is told in the log by its name.
  ManifestIndex(const hxcrate::View& item, const std::string& name);

  const tool::Manifest::Members& members() const { return manifest_.members(); }
  bool isEmpty() const { return members().empty(); }
  // What it tells of a store or an item; null: nothing, or of something else in its place.
  const tool::MemberAttributes* find(std::string_view path, bool isStore) const;
  // The symbolic links that lie in the folder.
  std::pair<Links::const_iterator, Links::const_iterator> linksIn(std::string_view folder) const {
    return links_.equal_range(folder);
  }

 private:
  void read(const hxcrate::View& item);

  tool::Manifest manifest_;
  Links links_;  // by their folder; both lie in the manifest
};

}  // namespace mounted
