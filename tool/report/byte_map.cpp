#include "byte_map.h"

#include <algorithm>
#include <numeric>

namespace tool {

namespace {

// A power of two, so that rows begin at round places.
std::int64_t chooseBytesPerCell(std::int64_t length) {
  std::int64_t bytes = 8;
  while (length / bytes >= ByteMap::kCellsPerRow * ByteMap::kMostRows)
    bytes *= 2;
  return bytes;
}

}  // namespace

ByteMap::ByteMap(InspectedStore& store)
    : length_(store.file().length()),
      bytesPerCell_(chooseBytesPerCell(length_)),
      cells_(static_cast<std::size_t>((length_ + bytesPerCell_ - 1) / bytesPerCell_)),
      owned_(store.inspection().members().size()) {
  FolderCosts costs(store.inspection());
  store.inspection().walkPages({.onExtent = [&](const auto& extent) {
    add(extent);
    costs.add(extent);
  }});
  folders_ = costs.finish();
}

void ByteMap::add(const hxcrate::Extent& extent) {
  const auto kind = static_cast<std::size_t>(extent.kind);
  totals_[kind] += extent.length;
  if (extent.member != hxcrate::kNoMember) owned_[extent.member] += extent.length;
  const std::int64_t end = extent.offset + extent.length;
  for (std::int64_t at = extent.offset; at < end;) {
    const std::int64_t index = at / bytesPerCell_;
    const std::int64_t count = std::min(end, (index + 1) * bytesPerCell_) - at;
    at += count;
    // The file may have grown since its length was taken.
    if (static_cast<std::size_t>(index) >= cells_.size()) return;
    MapCell& cell = cells_[static_cast<std::size_t>(index)];
    cell.bytes[kind] += count;
    if (count > cell.longest) {
      cell.longest = count;
      cell.member = extent.member;
    }
  }
}

std::vector<MapOwner> ByteMap::findLargestOwners(std::size_t count) const {
  std::vector<std::size_t> members(owned_.size());
  std::iota(members.begin(), members.end(), std::size_t{0});
  const auto end = members.begin() + static_cast<std::ptrdiff_t>(std::min(count, members.size()));
  std::partial_sort(members.begin(), end, members.end(), [&](std::size_t a, std::size_t b) {
    return owned_[a] != owned_[b] ? owned_[a] > owned_[b] : a < b;
  });
  std::vector<MapOwner> owners;
  for (auto member = members.begin(); member != end; ++member)
    owners.push_back({*member, owned_[*member]});
  return owners;
}

hxcrate::ByteKind mainKindOf(const MapCell& cell) {
  const auto most = std::max_element(cell.bytes.begin(), cell.bytes.end());
  return static_cast<hxcrate::ByteKind>(most - cell.bytes.begin());
}

}  // namespace tool
