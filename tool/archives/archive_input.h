// An archive that is being read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "archive_handle.h"
#include "tool/trees/directory.h"

namespace tool {

// Of any format that the library reads and that holds files, compressed in any way that it undoes
// by itself: no program is run. Its errors are Failures, in which it has the path that was given.
// Names in a tar are the bytes that it has; in formats that keep them as Unicode they are UTF-8,
// in which the library composes what can be.
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
  static la_ssize_t give(archive* reader, void* self, const void** bytes);
  static la_int64_t skip(archive* reader, void* self, la_int64_t count);
  static la_int64_t seek(archive* reader, void* self, la_int64_t offset, int from);

  void start(const char* locale);
  void open();
  std::span<const std::byte> readBlock();
  std::string reason() const;
  [[noreturn]] void fail(archive_entry* entry) const;

  const std::string name_;
  const Descriptor file_;
  std::int64_t start_ = -1;
  std::int64_t length_ = 0;  // of a regular file
  std::vector<std::byte> block_;
  std::vector<std::byte> head_;  // of what can't be read twice: all before the first entry's bytes
  std::size_t replayed_ = 0;     // of that
  bool isFormatKnown_ = false;
  std::optional<CharacterLocale> locale_;
  std::exception_ptr failure_;  // in a callback: no exception passes through the library
  ArchiveHandle reader_;
  archive_entry* entry_ = nullptr;
};

}  // namespace tool
