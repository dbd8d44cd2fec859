// What the files of each folder cost in a store file, and what they could.
#pragma once

#include <cstdint>
#include <vector>

#include "hxcrate/inspect.hpp"

namespace tool {

// Of the items that lie in a store itself, not in those nested in it. Sums of bytes.
struct FolderCost {
  std::size_t store;
  std::int64_t items = 0;
  std::int64_t takes = 0;  // all of the file that they own
  std::int64_t data = 0;
  std::int64_t slack = 0;  // room behind their ends
  // The page size with which they would take least, and what.
  std::int32_t bestPageSize = 0;
  std::int64_t bestTakes = 0;
};

class FolderCosts {
 public:
  // The inspection outlives it.
  explicit FolderCosts(const hxcrate::Inspection& inspection)
      : inspection_(inspection), costs_(inspection.members().size()) {}

  // Of the walk through the pages.
  void add(const hxcrate::Extent& extent);
  // Once that is over: the stores that have items, those whose items take most first.
  std::vector<FolderCost> finish();

 private:
  const hxcrate::Inspection& inspection_;
  std::vector<FolderCost> costs_;  // by member
};

}  // namespace tool
