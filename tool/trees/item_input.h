// What is going to be written into an item.
#pragma once

#include <cstdint>
#include <string>

#include "directory.h"

namespace tool {

// A regular file is read as it is; anything else, which may be slow or fail halfway, is taken whole
// into a nameless file first, so that a store is not kept open for it.
class ItemInput {
 public:
  // The file `path`; "-": standard input. The nameless file, if need be, lies in the folder of
  // `store`. Throws a Failure, also for more than an item can hold.
  ItemInput(const std::string& path, const std::string& store);

  // Throws a Failure when the file `path` can't be read or holds too much, as far as that can be
  // known without reading it. How many bytes there are; 0 when that is not known either.
  static std::int64_t requireReadable(const std::string& path);

  const std::string& name() const { return name_; }  // in messages
  const Descriptor& descriptor() const { return file_; }
  std::int64_t size() const { return size_; }  // from where the descriptor stands at first
  // Puts the descriptor there again.
  void rewind() const;

 private:
  void collect(const std::string& store);

  std::string name_;
  Descriptor file_;
  std::int64_t start_ = 0;
  std::int64_t size_ = 0;
};

}  // namespace tool
