#include "archive_input.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tool/files/interruption.h"
#include "tool/report/report.h"
#include "tool/trees/list_file.h"

namespace tool {

namespace {

constexpr std::size_t kBlock = 65536;
constexpr std::size_t kLongestHead = 64 << 20;

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
  length_ = status.st_size;
  block_.resize(kBlock);
  start("C");
}

void ArchiveInput::rewind() {
  if (::lseek(file_.number(), start_, SEEK_SET) != start_) throw systemFailure(name_, "seek");
  open();
}

void ArchiveInput::start(const char* locale) {
  locale_.reset();  // before the next one begins
  locale_.emplace(locale);
  canRewind() ? rewind() : open();
}

void ArchiveInput::open() {
  reader_ = own(archive_read_new());
  replayed_ = 0;
  for (const Support support : kFilters)
    support(reader_.get());
  for (const Support support : kFormats)
    support(reader_.get());
  archive_read_set_callback_data(reader_.get(), this);
  archive_read_set_read_callback(reader_.get(), &ArchiveInput::give);
  archive_read_set_skip_callback(reader_.get(), &ArchiveInput::skip);
  archive_read_set_seek_callback(reader_.get(), &ArchiveInput::seek);
  if (archive_read_open1(reader_.get()) != ARCHIVE_OK) fail(nullptr);
}

// It may be called while entries are passed over, which can take as long as they are.
la_ssize_t ArchiveInput::give(archive*, void* self, const void** bytes) {
  auto& input = *static_cast<ArchiveInput*>(self);
  try {
    throwIfInterrupted();
    const std::span<const std::byte> block = input.readBlock();
    *bytes = block.data();
    return static_cast<la_ssize_t>(block.size());
  } catch (...) {
    input.failure_ = std::current_exception();
    return ARCHIVE_FATAL;
  }
}

std::span<const std::byte> ArchiveInput::readBlock() {
  if (replayed_ < head_.size()) {
    const auto rest = std::span(head_).subspan(replayed_);
    const auto block = rest.first(std::min(rest.size(), kBlock));
    replayed_ += block.size();
    std::ranges::copy(block, block_.begin());
    return std::span(block_).first(block.size());
  }
  const ssize_t count = readSome(file_, block_);
  if (count < 0) throw systemFailure(name_, "read");
  const auto block = std::span(block_).first(static_cast<std::size_t>(count));
  if (!canRewind() && !isFormatKnown_) head_.insert(head_.end(), block.begin(), block.end());
  if (head_.size() > kLongestHead) {
    throw Failure(ExitCode::inputOutput, name_, "", "its first entry is too far behind its start");
  }
  replayed_ = head_.size();
  return block;
}

// Not beyond the end, where nobody would see that it is cut.
la_int64_t ArchiveInput::skip(archive*, void* self, la_int64_t count) {
  const auto& input = *static_cast<ArchiveInput*>(self);
  const off_t at = ::lseek(input.file_.number(), 0, SEEK_CUR);
  const off_t wanted = std::min<off_t>(count, input.length_ - at);
  if (at < 0 || wanted <= 0 || ::lseek(input.file_.number(), wanted, SEEK_CUR) < 0) return 0;
  return wanted;
}

la_int64_t ArchiveInput::seek(archive* reader, void* self, la_int64_t offset, int from) {
  const off_t at = ::lseek(static_cast<ArchiveInput*>(self)->file_.number(), offset, from);
  if (at >= 0) return at;
  archive_set_error(reader, errno, "it can't seek");
  return ARCHIVE_FATAL;
}

// The library takes names of some formats, those of a tar as well, for text in other characters
// than the locale's. Where it can't turn them into these it gives those of a tar as they are, and
// the locale "C" has none but ASCII.
archive_entry* ArchiveInput::next() {
  int result = archive_read_next_header(reader_.get(), &entry_);
  const int format = archive_format(reader_.get()) & ARCHIVE_FORMAT_BASE_MASK;
  if (!isFormatKnown_ && !failure_ && format != ARCHIVE_FORMAT_TAR) {
    start("C.UTF-8");
    result = archive_read_next_header(reader_.get(), &entry_);
  }
  isFormatKnown_ = true;
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
  if (failure_) std::rethrow_exception(failure_);
  const char* const path = entry == nullptr ? nullptr : archive_entry_pathname(entry);
  throw Failure(ExitCode::inputOutput, name_, path == nullptr ? "" : path, reason());
}

}  // namespace tool
