// What a tree of files has beside names and bytes, while it is packed.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "manifest.h"

namespace tool {

// Takes the entries of a tree by their paths in the store, and gives the bytes of its manifest.
class AttributeRecorder {
 public:
  void addFolder(const std::string& place, const struct stat& status);
  void addLink(const std::string& place, const struct stat& status, const std::string& target);
  // Its bytes follow. It is a hard link to what was added before as the same file.
  void addFile(const std::string& place, const struct stat& status);
  void addBytes(std::span<const std::byte> bytes) { writer_.addBytes(bytes); }
  // Once, after all.
  std::string finish() { return writer_.finish(); }

 private:
  MemberAttributes attributesOf(MemberAttributes::Type type, const struct stat& status);

  ManifestWriter writer_;
  std::map<std::pair<dev_t, ino_t>, std::string> files_;  // that have several names
  std::map<uid_t, std::string> users_;
  std::map<gid_t, std::string> groups_;
};

}  // namespace tool
