// Who may do what with a file: its owner, group, mode and ACL.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "tool/trees/directory.h"

namespace tool {

class FileRights {
 public:
  // Of an open file, be it opened for its path alone. Throws a Failure, in which it is called
  // `path`.
  FileRights(const Descriptor& file, const std::string& path);

  // Gives `file` the same, but for set-id bits. Throws a Failure, in which it is called `path`,
  // when that can't be.
  void give(const Descriptor& file, const std::string& path) const;

  // Lets nobody read `file` but its owner and those who may read this one, of whom the mask of the
  // process leaves out some. Throws a Failure as above.
  void bound(const Descriptor& file, const std::string& path) const;

 private:
  bool giveOwner(const Descriptor& file) const;
  bool giveAcl(const Descriptor& file) const;

  struct stat status_ {};
  std::optional<std::string> acl_;  // as the system keeps it; nothing when the mode says it all
};

}  // namespace tool
