#include "archive_input.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "list_file.h"
#include "report.h"

namespace tool {

namespace {

constexpr std::size_t kBlock = 65536;

using Support = int (*)(archive*);

constexpr Support kFilters[] = {
    archive_read_support_filter_gzip, archive_read_support_filter_bzip2,
    archive_read_support_filter_xz,   archive_read_support_filter_lzma,
    archive_read_support_filter_zstd, archive_read_support_filter_lz4,
    archive_read_support_filter_lzip, archive_read_support_filter_compress,
    archive_read_support_filter_uu,   archive_read_support_filter_rpm};

// Of a zip only its end tells modes and links, so that it is not read as a stream.
constexpr Support kFormats[] = {
    archive_read_support_format_tar,          archive_read_support_format_gnutar,
    archive_read_support_format_zip_seekable, archive_read_support_format_cpio,
    archive_read_support_format_7zip,         archive_read_support_format_rar,
    archive_read_support_format_rar5,         archive_read_support_format_cab,
    archive_read_support_format_lha,          archive_read_support_format_xar,
    archive_read_support_format_iso9660,      archive_read_support_format_ar,
    archive_read_support_format_warc,         archive_read_support_format_empty};

}  // namespace

ArchiveInput::ArchiveInput(const std::string& path)
    : name_(path == "-" ? "standard input" : path), file_(openList(path)) {
  struct stat status {};
  if (::fstat(file_.number(), &status) != 0) throw systemFailure(name_, "inspect");
  errno = S_ISDIR(status.st_mode) ? EISDIR : 0;
  if (errno != 0) throw systemFailure(name_, "read");
  if (S_ISREG(status.st_mode)) start_ = ::lseek(file_.number(), 0, SEEK_CUR);
  open();
}

void ArchiveInput::rewind() {
  if (::lseek(file_.number(), start_, SEEK_SET) != start_) throw systemFailure(name_, "seek");
  open();
}

void ArchiveInput::open() {
  reader_ = own(archive_read_new());
  for (const Support support : kFilters)
    support(reader_.get());
  for (const Support support : kFormats)
    support(reader_.get());
  if (archive_read_open_fd(reader_.get(), file_.number(), kBlock) != ARCHIVE_OK) fail(nullptr);
}

archive_entry* ArchiveInput::next() {
  const int result = archive_read_next_header(reader_.get(), &entry_);
  if (result == ARCHIVE_EOF && archive_format(reader_.get()) == ARCHIVE_FORMAT_EMPTY) {
    throw Failure(ExitCode::inputOutput, name_, "", "is empty: no archive");
  }
  if (result == ARCHIVE_EOF) return nullptr;
  if (result != ARCHIVE_OK && result != ARCHIVE_WARN) fail(nullptr);
  return entry_;
}

std::size_t ArchiveInput::read(std::span<std::byte> room) {
  const la_ssize_t count = archive_read_data(reader_.get(), room.data(), room.size());
  if (count < 0) fail(entry_);
  return static_cast<std::size_t>(count);
}

bool ArchiveInput::isCpio() const {
  return (archive_format(reader_.get()) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_CPIO;
}

std::string ArchiveInput::reason() const {
  const bool isStream = !canRewind() || archive_filter_count(reader_.get()) > 1;
  const bool isUnknown = archive_format(reader_.get()) == 0;
  if (isStream && (isUnknown || archive_errno(reader_.get()) == ESPIPE)) {
    return (isUnknown ? archiveErrorOf(reader_.get()) + "; " : std::string()) +
           "a zip or 7z is imported from a file, and not compressed once more";
  }
  return archiveErrorOf(reader_.get());
}

void ArchiveInput::fail(archive_entry* entry) const {
  const char* const path = entry == nullptr ? nullptr : archive_entry_pathname(entry);
  throw Failure(ExitCode::inputOutput, name_, path == nullptr ? "" : path, reason());
}

}  // namespace tool
