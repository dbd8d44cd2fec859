// Files that are written with holes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "directory.h"

namespace tool {

// Writes a new file from its start, but for blocks that are all zero: those stay holes.
class SparseFile {
 public:
  explicit SparseFile(const Descriptor& file) : file_(file) {}

  // False with errno set, both.
  bool write(std::span<const std::byte> bytes);
  // Once, after all: what ends with a hole gets its length.
  bool finish() const;

 private:
  const Descriptor& file_;
  std::int64_t length_ = 0;
};

}  // namespace tool
