#include "archive_output.h"

#include <utility>

#include "tool/report/report.h"
#include "tool/report/utf8.h"

namespace tool {

namespace {

// Archives of tapes are as long as a number of these.
constexpr int kTapeBlock = 10240;

struct Suffix {
  const char* end;
  const char* format;
  const char* filter;
};
constexpr Suffix kSuffixes[] = {{".tar", "tar", ""},         {".zip", "zip", ""},
                                {".cpio", "cpio", ""},       {".tar.gz", "tar", "gzip"},
                                {".tgz", "tar", "gzip"},     {".tar.bz2", "tar", "bzip2"},
                                {".tar.xz", "tar", "xz"},    {".txz", "tar", "xz"},
                                {".tar.zst", "tar", "zstd"}, {".cpio.gz", "cpio", "gzip"}};

bool isText(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = measureCharacter(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

}  // namespace

std::optional<ArchiveKind> kindOfArchive(const std::string& path) {
  for (const Suffix& suffix : kSuffixes)
    if (path.ends_with(suffix.end)) return ArchiveKind{suffix.format, suffix.filter};
  return std::nullopt;
}

ArchiveOutput::ArchiveOutput(const ArchiveKind& kind, std::string name, Give give)
    : name_(std::move(name)),
      give_(std::move(give)),
      isZip_(kind.format == "zip"),
      writer_(own(archive_write_new())) {
  archive* const writer = writer_.get();
  const char* const format = isZip_ ? "zip" : kind.format == "cpio" ? "newc" : "pax";
  require(archive_write_set_format_by_name(writer, format) == ARCHIVE_OK);
  if (!kind.filter.empty())
    require(archive_write_add_filter_by_name(writer, kind.filter.c_str()) == ARCHIVE_OK);
  if (kind.filter == "gzip")
    require(archive_write_set_options(writer, "gzip:!timestamp") == ARCHIVE_OK);
  archive_write_set_bytes_in_last_block(writer, isZip_ || !kind.filter.empty() ? 1 : kTapeBlock);
  require(archive_write_open(writer, this, nullptr, &ArchiveOutput::give, nullptr) == ARCHIVE_OK);
}

// An archive that was given up must not look finished.
ArchiveOutput::~ArchiveOutput() {
  if (writer_) archive_write_fail(writer_.get());
}

la_ssize_t ArchiveOutput::give(archive*, void* self, const void* bytes, std::size_t count) {
  auto& output = *static_cast<ArchiveOutput*>(self);
  if (output.failure_) return ARCHIVE_FATAL;
  try {
    output.give_({static_cast<const std::byte*>(bytes), count});
    return static_cast<la_ssize_t>(count);
  } catch (...) {
    output.failure_ = std::current_exception();  // no exception passes through the library
    return ARCHIVE_FATAL;
  }
}

void ArchiveOutput::require(bool succeeded) const {
  if (failure_) std::rethrow_exception(failure_);
  if (!succeeded) throw Failure(ExitCode::inputOutput, name_, "", reason());
}

// A warning is that a name is no text of the format's characters; it goes in as the bytes it is. In
// a zip it would pass for UTF-8 all the same, unless the locale is another.
bool ArchiveOutput::begin(archive_entry* entry) {
  std::optional<CharacterLocale> plain;
  if (isZip_ && !isText(archive_entry_pathname(entry))) plain.emplace("C");
  const int result = archive_write_header(writer_.get(), entry);
  require(result != ARCHIVE_FATAL);
  return result == ARCHIVE_OK || result == ARCHIVE_WARN;
}

void ArchiveOutput::write(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const la_ssize_t taken = archive_write_data(writer_.get(), bytes.data(), bytes.size());
    require(taken > 0);
    bytes = bytes.subspan(static_cast<std::size_t>(taken));
  }
}

void ArchiveOutput::finish() {
  require(archive_write_close(writer_.get()) == ARCHIVE_OK);
}

}  // namespace tool
