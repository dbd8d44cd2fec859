#include "mount/node_table.h"

#include <bit>
#include <functional>

namespace mounted {

namespace {

std::size_t hashOf(NodeId parent, std::string_view name) {
  constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;
  return std::hash<std::string_view>()(name) ^ (parent * kSpread >> 7);
}

}  // namespace

NodeId NodeTable::add(NodeId parent, std::string_view name, std::uint64_t inode,
                      std::uint32_t folder) {
  nodes_.push_back({.inode = inode,
                    .size = kSizeUnknown,
                    .name = names_.size(),
                    .parent = parent,
                    .folder = folder,
                    .length = static_cast<std::uint16_t>(name.size())});
  names_.insert(names_.end(), name.begin(), name.end());
  names_.push_back('\0');
  return size() - 1;
}

void NodeTable::index() {
  slots_.assign(std::bit_ceil(nodes_.size() + nodes_.size() / 2), kNoNode);
  const std::size_t mask = slots_.size() - 1;
  for (NodeId id = 0; id < size(); ++id) {
    std::size_t slot = hashOf(nodes_[id].parent, nameOf(id)) & mask;
    while (slots_[slot] != kNoNode)
      slot = (slot + 1) & mask;
    slots_[slot] = id;
  }
}

NodeId NodeTable::find(NodeId parent, std::string_view name) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t slot = hashOf(parent, name) & mask;; slot = (slot + 1) & mask) {
    const NodeId id = slots_[slot];
    if (id == kNoNode || (nodes_[id].parent == parent && nameOf(id) == name)) return id;
  }
}

}  // namespace mounted
