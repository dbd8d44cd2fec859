// The store file that a new one is made of.
#pragma once

#include <optional>
#include <string>

#include "file_rights.h"
#include "tool/trees/directory.h"

namespace tool {

// Its path may lead to another file at any time. So what is read has to be this file, by whose
// rights the new one's are bounded.
class CopiedFile {
 public:
  // The file that `path` leads to now. Throws hxcrate::Error.
  explicit CopiedFile(const std::string& path);

  int descriptor() const { return file_.number(); }
  // Null of what lies behind a URL.
  const FileRights* rights() const { return rights_ ? &*rights_ : nullptr; }

  // What was opened by the path. Throws a Failure unless it lies in this file.
  template <typename Opened>
  Opened require(Opened opened) const {
    requireIn(opened);
    return opened;
  }
  template <typename Opened>
  void requireIn(const Opened& opened) const {
    if (rights_ && !opened.isIn(descriptor())) refuse();
  }

 private:
  [[noreturn]] void refuse() const;

  std::string path_;
  Descriptor file_;  // for its path alone: a FIFO is not waited for
  std::optional<FileRights> rights_;
};

}  // namespace tool
