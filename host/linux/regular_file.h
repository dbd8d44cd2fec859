// Opening and removing regular files, and nothing else, by path. Links are followed, so a store is
// opened, replaced and deleted where its data are, and the link to it stays.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "host/linux/file_ops.h"

namespace hxhost {

// Closes what it owns.
class Descriptor {
 public:
  Descriptor() = default;
  Descriptor(FileOps& ops, int number) : ops_(&ops), number_(number) {}
  Descriptor(Descriptor&& other) noexcept { *this = std::move(other); }
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }

  int number() const { return number_; }
  bool isOpen() const { return number_ >= 0; }

  // 0 or an errno. Nothing is open afterwards.
  int close();

 private:
  FileOps* ops_ = nullptr;
  int number_ = -1;
};

// A regular file that was opened.
struct RegularFile {
  Descriptor descriptor;
  bool isWritable = false;
  bool wasCreated = false;  // by this open; unknown, and false, for a file created through a link
  std::string path;         // absolute, without links
  int64_t size = 0;         // bytes
};

// 0 and the file, or an errno: EISDIR for a directory, ENOTSUP for anything else that is no regular
// file, ENOENT for an absent one that is not to be written. Nothing but a regular file is opened,
// and a file that was created is removed again when the open fails. May throw std::bad_alloc.
int openRegularFile(FileOps& ops, const std::string& path, bool writable, RegularFile& file);

// 0 when removed, else an errno as above. May throw std::bad_alloc.
int removeRegularFile(FileOps& ops, const std::string& path);

// Removes a file that this open created, when it is still empty and still there. 0 also when there
// was nothing to remove, else an errno. The file is still open.
int removeIfLeftEmpty(FileOps& ops, const RegularFile& file);

}  // namespace hxhost
