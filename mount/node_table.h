// The names of a mounted tree: every file and folder by a number, with where it hangs.
//
//   1. A node's parent has a smaller number than the node; the root is number 0, and its own
//   parent.
//   2. No two nodes of one parent have the same name, which the builder sees to.
//   3. After it is built nothing changes but a node's `size` and `isTold`, by std::atomic_ref; any
//      number of threads may read.
//
// A node is to stay small: there are as many as members.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace mounted {

using NodeId = std::uint32_t;

constexpr NodeId kRoot = 0;
constexpr NodeId kNoNode = std::numeric_limits<NodeId>::max();
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kSizeUnknown = -1;

struct Node {
  std::uint64_t inode;  // as programs see it, but for hard links
  std::int64_t size;    // of a file, bytes; kSizeUnknown until somebody asked
  std::uint64_t name;   // where it begins in the table's names
  NodeId parent;
  std::uint32_t folder;              // which one it is; kNone: a file, or a symbolic link
  std::uint32_t attributes = kNone;  // which it has; kNone: those of its store
  std::uint16_t length;              // of the name, bytes
  bool isTold = false;               // that it is damaged stands in the log
};
static_assert(sizeof(Node) == 40);

// `slots_` is a power of two, at most two thirds of it taken, so that every probe ends.
class NodeTable {
 public:
  // The new node's number.
  NodeId add(NodeId parent, std::string_view name, std::uint64_t inode, std::uint32_t folder);
  // Ends the building. One pass over 100,000 nodes takes a third of the time of an index that grows
  // with them.
  void index();
  // kNoNode: there is none.
  NodeId find(NodeId parent, std::string_view name) const;

  Node& operator[](NodeId id) { return nodes_[id]; }
  const Node& operator[](NodeId id) const { return nodes_[id]; }
  NodeId size() const { return static_cast<NodeId>(nodes_.size()); }
  // Ends with a NUL behind its bytes.
  std::string_view nameOf(NodeId id) const {
    return {names_.data() + nodes_[id].name, nodes_[id].length};
  }

 private:
  std::vector<Node> nodes_;
  std::vector<char> names_;
  std::vector<NodeId> slots_;  // by the hash of parent and name, probed one after the other
};

}  // namespace mounted
