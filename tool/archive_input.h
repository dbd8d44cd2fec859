// An archive that is being read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "archive_handle.h"
#include "directory.h"

namespace tool {

// Of any format that the library reads and that holds files, compressed in any way that it undoes
// by itself: no program is run. Its errors are Failures, in which it has the path that was given.
class ArchiveInput {
 public:
  // The file `path`, or standard input for "-".
  explicit ArchiveInput(const std::string& path);

  const std::string& name() const { return name_; }
  // Whether it can be read twice.
  bool canRewind() const { return start_ >= 0; }
  void rewind();

  // Valid until the next call; null at the end.
  archive_entry* next();
  // Of the entry that `next` gave last; 0 at its end.
  std::size_t read(std::span<std::byte> room);
  bool isCpio() const;

 private:
  void open();
  std::string reason() const;
  [[noreturn]] void fail(archive_entry* entry) const;

  const std::string name_;
  const Descriptor file_;
  std::int64_t start_ = -1;
  const CharacterLocale locale_;
  ArchiveHandle reader_;
  archive_entry* entry_ = nullptr;
};

}  // namespace tool
