// An archive that is being written.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "archive_handle.h"

namespace tool {

struct ArchiveKind {
  std::string format = "tar";  // or zip, cpio
  std::string filter = {};     // that compresses it, as the library calls it; empty: none
};

// By the end of a file's name; nothing for one that says nothing.
std::optional<ArchiveKind> kindOfArchive(const std::string& path);

// The same entries give the same bytes.
class ArchiveOutput {
 public:
  // `give` gets the archive's bytes; what it throws comes out of the call that led to it. `name` is
  // what the archive is called in Failures.
  using Give = std::function<void(std::span<const std::byte>)>;
  ArchiveOutput(const ArchiveKind& kind, std::string name, Give give);
  ~ArchiveOutput();
  ArchiveOutput(const ArchiveOutput&) = delete;
  ArchiveOutput& operator=(const ArchiveOutput&) = delete;

  // The bytes of a file follow, as many as the entry says. False, and nothing begun, for one that
  // the format can't tell of.
  bool begin(archive_entry* entry);
  // Whether the format keeps the name: readers of zip take a backslash for a slash.
  bool keeps(const std::string& path) const { return !isZip_ || path.find('\\') == path.npos; }
  void write(std::span<const std::byte> bytes);
  // Without it what was given is no whole archive.
  void finish();

  std::string reason() const { return archiveErrorOf(writer_.get()); }

 private:
  static la_ssize_t give(archive* writer, void* self, const void* bytes, std::size_t count);
  void require(bool succeeded) const;

  const std::string name_;
  Give give_;
  std::exception_ptr failure_;
  const bool isZip_;
  const CharacterLocale locale_;
  ArchiveHandle writer_;
};

}  // namespace tool
