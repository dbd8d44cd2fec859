// What a member of a tree is besides its name and its bytes, as manifests and archives tell it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sha256.h"
#include "tool/archives/archive_handle.h"

namespace tool {

// Of one member. A manifest is a stranger's: each user of it looks whether the member is of this
// type at all, and has these bytes still.
struct MemberAttributes {
  enum class Type {
    file,
    folder,
    symbolicLink,  // no member of the store: the manifest alone has it
    hardLink,      // a file, and one with the file `target`, which no link leads on from; its item
                   // in the store has the bytes too
  };

  Type type = Type::file;
  std::uint32_t mode = 0;  // permissions, set-id and sticky bits; 0 where the manifest has none
  std::int64_t uid = 0;    // 0 where the manifest has none
  std::int64_t gid = 0;
  std::string user = {};  // names; empty: none
  std::string group = {};
  std::optional<std::int64_t> modified = {};  // nanoseconds since 1970
  std::int64_t size = 0;                      // bytes of a file
  std::string target = {};                    // of a link, as above
  std::optional<Sha256::Digest> sha256 = {};  // of a file's bytes

  bool isFile() const { return type == Type::file || type == Type::hardLink; }
};

// Of an entry of an archive, as far as it tells; nothing of what is neither file, folder nor
// symbolic link. A hard link is a file here.
std::optional<MemberAttributes> attributesOf(archive_entry* entry);

// Of manifests: a backslash and three octal digits are a byte.
std::string unescape(std::string_view text);

// All but the path, a hard link's target and the checksum.
void describe(archive_entry* entry, const MemberAttributes& member);

// The path inside a store of what an archive calls `written`: "./a//b/" is a/b, "." the empty path.
// Nothing for one that leads elsewhere.
std::optional<std::string> pathInside(std::string_view written);

}  // namespace tool
