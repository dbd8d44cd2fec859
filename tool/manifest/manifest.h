// What a tree of files has beside names and bytes, as the item that keeps it: text in the format
// mtree, a line for each member.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "member_attributes.h"
#include "tool/archives/archive_handle.h"

namespace tool {

// The item that holds the manifest of a store, in the store as a whole. It is none of the tree's
// own files, and no line of it tells of it.
constexpr std::string_view kManifestName = ".mtree";

// What manifests begin with, and those that this command makes.
constexpr std::string_view kAnyManifest = "#mtree";
constexpr std::string_view kOwnManifest = "#mtree\n# Attributes of the members of a store.\n";

// Why bytes are no manifest, or none could be made.
class ManifestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads whatever bytes in memory and time that their number bounds.
class Manifest {
 public:
  using Members = std::map<std::string, MemberAttributes, std::less<>>;

  static constexpr std::size_t kMostBytes = 256 * 1024 * 1024;

  Manifest() = default;  // of nothing
  // Throws ManifestError. Lines whose path leads out of the tree and those of devices are left out;
  // of several for one path the last counts.
  explicit Manifest(std::span<const std::byte> bytes);

  // By path inside the store, as a/b/c; the empty one is the tree's top folder.
  const Members& members() const { return members_; }
  // Null: it does not tell.
  const MemberAttributes* find(std::string_view path) const;

 private:
  void add(archive_entry* entry);

  Members members_;
  std::map<std::pair<std::int64_t, std::int64_t>, std::string> files_;  // by device and number
};

// Takes the members of a tree in any order and gives the bytes of their manifest, the same for the
// same calls. All lines are held in memory until it is finished.
class ManifestWriter {
 public:
  ManifestWriter();

  // `path` as in Manifest; not twice the same. Of a file `size` bytes have to follow, of which its
  // checksum is made, of a hard link too; the target of that was added before. Throws
  // ManifestError.
  void add(const std::string& path, const MemberAttributes& member);
  // Some more bytes of the file that was added last.
  void addBytes(std::span<const std::byte> bytes);
  // Once, after all.
  std::string finish();

 private:
  void require(bool succeeded) const;

  std::string text_;  // outlives the writer
  ArchiveHandle writer_;
  std::map<std::string, std::int64_t, std::less<>> numbers_;  // of files, by path
};

}  // namespace tool
