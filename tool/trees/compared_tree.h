// One of the two trees that diff compares: a store's, or a folder's.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "hxcrate/crate.hpp"
#include "tool/report/report.h"

namespace tool {

struct ComparedMember {
  // A link is one that a store's manifest has, or any of a folder; other: what no store can hold.
  enum class Kind { item, container, link, other };

  std::string name;
  Kind kind;
};

// It is at one of its containers, at first the outermost. What fails throws hxcrate::Error or a
// Failure; a damaged one says that nothing more should be read.
class ComparedTree {
 public:
  virtual ~ComparedTree() = default;

  // By the bytes of the names.
  virtual std::vector<ComparedMember> list() = 0;
  // Into a container, and out of it.
  virtual void enter(const std::string& name) = 0;
  virtual void leave() = 0;

  // Where a link leads.
  virtual std::string targetOf(const std::string& name) = 0;

  // An item is open until the next.
  virtual void open(const std::string& name) = 0;
  // How many bytes came, 0 at the end only.
  virtual std::size_t read(std::span<std::byte> room) = 0;

  // For people, as "a store".
  virtual const char* describe(ComparedMember::Kind kind) const = 0;
};

// What `path` leads to. Of a store `withLinks` its own manifest is no item, and has links. What
// can't be read of a store's directory is told on standard error and changes `outcome`.
std::unique_ptr<ComparedTree> openTree(hxcrate::Session& session, const std::string& path,
                                       bool withLinks, ExitCode& outcome);

bool isFolder(const std::string& path);

}  // namespace tool
