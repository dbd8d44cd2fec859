// A store file in a bounded number of cells, however long it is.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "folder_costs.h"
#include "tool/files/inspected_store.h"

namespace tool {

using KindBytes = std::array<std::int64_t, hxcrate::kByteKinds>;

struct MapCell {
  KindBytes bytes{};
  std::size_t member = hxcrate::kNoMember;  // of the longest piece
  std::int64_t longest = 0;
};

struct MapOwner {
  std::size_t member;
  std::int64_t bytes;  // its records, its data and its slack
};

class ByteMap {
 public:
  static constexpr std::int64_t kCellsPerRow = 64;
  static constexpr std::int64_t kMostRows = 32;

  // Walks the store's pages.
  explicit ByteMap(InspectedStore& store);

  std::int64_t length() const { return length_; }
  std::int64_t bytesPerCell() const { return bytesPerCell_; }
  const std::vector<MapCell>& cells() const { return cells_; }
  const KindBytes& totals() const { return totals_; }
  // The members that own most, the largest first.
  std::vector<MapOwner> findLargestOwners(std::size_t count) const;
  const std::vector<FolderCost>& folders() const { return folders_; }

 private:
  void add(const hxcrate::Extent& extent);

  std::int64_t length_;
  std::int64_t bytesPerCell_;
  std::vector<MapCell> cells_;
  KindBytes totals_{};
  std::vector<std::int64_t> owned_;  // by member
  std::vector<FolderCost> folders_;
};

// The kind that most bytes of a cell are of.
hxcrate::ByteKind mainKindOf(const MapCell& cell);

}  // namespace tool
