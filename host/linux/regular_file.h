// Regular files, and nothing else, by path. Links are followed, so a store is opened, replaced and
// deleted where its data are, and the link to it stays.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "host/linux/file_ops.h"
#include "host/linux/open_request.h"

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

// A regular file that was opened. What lies beside it is found by `directory` alone: by its path
// somebody could have a journal made, or removed, in a directory that is not his.
struct RegularFile {
  Descriptor directory;  // that has the file under its name
  Descriptor descriptor;
  bool isWritable = false;  // the descriptor
  bool wasCreated = false;  // by this open; unknown, and false, for a file created through a link
  std::string path;         // absolute, without links
  FileInfo info{};          // as it was when last inspected
};

// Where the file that `path` leads to is, and what it is: `file.path` and `file.info`; the path
// stays empty where there is none. An errno: EISDIR for a directory, ENOTSUP for anything else that
// is no regular file. Looking before opening matters: the mere opening of a device or a FIFO has
// effects. May throw std::bad_alloc.
int locateRegularFile(FileOps& ops, const std::string& path, RegularFile& file);

// 0 and the file that was located at `path`, or an errno as above; EFBIG beyond kLongestFile. For
// reading it is opened for writing too where the caller may, so that its lock can become an
// exclusive one. On failure `file` tells whether one was created. May throw std::bad_alloc.
int openRegularFile(FileOps& ops, const std::string& path, Purpose purpose, RegularFile& file);

// Inspects the open file anew, and whether it is still the one that its path, and its name in its
// directory, tell: 0, ENOENT when it is not, or another errno.
int inspectAgain(FileOps& ops, RegularFile& file);

bool isSameFile(const FileInfo& a, const FileInfo& b);

// Removes a file that its open created, when it is still empty and still there; it must be locked
// exclusively, or somebody's first write could go with it. 0 also when there was nothing to remove.
int removeIfLeftEmpty(FileOps& ops, RegularFile& file);

// Takes from the file its name; see FileOps::remove.
int removeName(FileOps& ops, const RegularFile& file);

// The directory of a path, and the name in it.
std::string directoryOf(const std::string& path);
std::string nameOf(const std::string& path);

}  // namespace hxhost
