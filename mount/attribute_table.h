// What files, folders and links have beside names and bytes, where a manifest told it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "mount/node_table.h"
#include "tool/manifest/manifest.h"

namespace mounted {

struct Attributes {
  std::int64_t modified;  // nanoseconds since 1970
  mode_t mode;            // with its type
  uid_t user;
  gid_t group;
  std::uint32_t extra = kNone;  // of a link its target; of a file its checksum
  std::uint32_t links = 1;      // hard ones that lead to it, with itself
  NodeId first = kNoNode;       // of a hard link the file that it is the same as
};

// Changes while it is built alone.
class AttributeTable {
 public:
  // What it does not tell is as in `usual`. Returns the number of what was added.
  std::uint32_t add(const tool::MemberAttributes& told, const Attributes& usual);

  Attributes& operator[](std::uint32_t number) { return attributes_[number]; }
  const Attributes& operator[](std::uint32_t number) const { return attributes_[number]; }

  const std::string& targetOf(const Attributes& link) const { return targets_[link.extra]; }
  // Of a file's bytes as they were when it was told, with their length; null: nobody knows.
  struct Checksum {
    tool::Sha256::Digest digest;
    std::int64_t size;
  };
  const Checksum* checksumOf(const Attributes& file) const {
    return file.extra != kNone ? &checksums_[file.extra] : nullptr;
  }

 private:
  using Names = std::map<std::string, std::int64_t>;

  std::vector<Attributes> attributes_;
  std::vector<std::string> targets_;
  std::vector<Checksum> checksums_;
  Names users_;  // whose number here was asked for; -1: nobody's
  Names groups_;
};

}  // namespace mounted
