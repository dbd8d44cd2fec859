// What a manifest has of a tree, given to the files that are unpacked.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "manifest.h"
#include "tool/trees/directory.h"

namespace tool {

struct RestoreOptions {
  bool isOff = false;  // the manifest is unpacked as the item that it is
  bool setId = false;  // with the bits that make a program run as its owner or group
  bool sameOwner = false;
};

// Works on what is open alone. Failures name the file `path`, and come when all else was given.
class AttributeRestorer {
 public:
  explicit AttributeRestorer(const RestoreOptions& options) : options_(options) {}

  // To a file or folder: owner, mode and time.
  void give(const Descriptor& file, const std::string& path, const MemberAttributes& member);
  // To one that keeps its owner and mode.
  static void giveTime(const Descriptor& file, const std::string& path,
                       const MemberAttributes& member);
  // To a symbolic link that was opened as a place (O_PATH): owner and time.
  void giveToLink(const Descriptor& link, const std::string& path, const MemberAttributes& member);

 private:
  // False with errno set.
  bool giveOwner(const Descriptor& file, const MemberAttributes& member);

  const RestoreOptions& options_;
  std::map<std::string, std::optional<uid_t>> users_;
  std::map<std::string, std::optional<gid_t>> groups_;
};

}  // namespace tool
