#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "hxcrate/inspect.hpp"
#include "inspect/record_reader.h"

namespace hxcrate {

namespace {

constexpr std::size_t kTransferSize = 1 << 20;

// A new file, which goes again unless it is kept.
class NewFile {
 public:
  explicit NewFile(const std::string& path)
      : path_(path), file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
    if (file_ < 0 && errno == EEXIST) throw Error(Errc::exists, path_, "");
    if (file_ < 0) fail(Errc::fileNotOpen, "create", -1);
  }
  ~NewFile() {
    if (file_ >= 0) ::close(file_);
    if (!isKept_) ::unlink(path_.c_str());
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void write(int64_t offset, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::pwrite(file_, bytes.data(), bytes.size(), offset);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) fail(Errc::fileFailed, "write", offset);
      bytes = bytes.subspan(static_cast<std::size_t>(count));
      offset += count;
    }
  }

  void keep() {
    if (::close(std::exchange(file_, -1)) != 0) fail(Errc::fileFailed, "close", -1);
    isKept_ = true;
  }

 private:
  [[noreturn]] void fail(Errc code, const char* operation, int64_t offset) const {
    const std::error_code reason(errno, std::system_category());
    throw Error(code, path_, "", FileFailure{operation, path_, offset, reason});
  }

  const std::string& path_;
  int file_;
  bool isKept_ = false;
};

class Transcoder {
 public:
  Transcoder(const ByteSource& source, std::string_view encodingId, const std::string& path)
      : source_(source), reader_(source, {}), encodingId_(encodingId), file_(path) {}

  void run() {
    copyAll();
    Inspection inspection(source_, [this](const Finding& finding) { refuse(finding); });
    const bool turns = isTurned(inspection.encoding()) != isTurned(encodingId_);
    inspection.walkPages({.onExtent = [&](const Extent& extent) {
      if (turns || extent.kind == ByteKind::header) writeTurned(extent, turns);
    }});
    file_.keep();
  }

 private:
  void refuse(const Finding& finding) const {
    if (finding.severity != Severity::error) return;
    throw Error(Errc::damaged, source_.name(), finding.place,
                "byte " + std::to_string(finding.offset) + ": " + finding.reason);
  }

  void copyAll() {
    std::vector<std::byte> buffer(kTransferSize);
    for (int64_t at = 0; at < reader_.length();) {
      const std::size_t count = source_.read(at, buffer);
      if (count == 0) failReading(at);
      file_.write(at, std::span(buffer).first(count));
      at += static_cast<int64_t>(count);
    }
  }

  // The records as they are, turned: nothing is converted to this machine's order on the way.
  void writeTurned(const Extent& extent, bool turns) {
    if (extent.kind == ByteKind::header) {
      auto header = readRaw<hx::Header>(extent.offset);
      setIdentity(header.encodingId, encodingId_);
      write(extent.offset, header, turns);
    } else if (extent.kind == ByteKind::entry) {
      write(extent.offset, readRaw<hx::Entry>(extent.offset), turns);
    } else if (extent.kind == ByteKind::chunk) {
      write(extent.offset, readRaw<hx::DataChunk>(extent.offset), turns);
    }
  }

  template <typename Record>
  Record readRaw(int64_t offset) const {
    Record record;
    if (source_.read(offset, std::as_writable_bytes(std::span(&record, 1))) < sizeof(record)) {
      failReading(offset);
    }
    return record;
  }

  template <typename Record>
  void write(int64_t offset, Record record, bool turns) {
    if (turns) turn(record);
    file_.write(offset, std::as_bytes(std::span(&record, 1)));
  }

  [[noreturn]] void failReading(int64_t offset) const {
    throw Error(Errc::fileFailed, source_.name(), "",
                "byte " + std::to_string(offset) + " can't be read");
  }

  const ByteSource& source_;
  const RecordReader reader_;
  std::string_view encodingId_;
  NewFile file_;
};

}  // namespace

void transcode(const ByteSource& source, std::string_view encodingId, const std::string& path) {
  if (!isTurned(encodingId)) {
    throw Error(Errc::unknownEncoding, std::string(encodingId), "",
                "known are hxmok1/le/utf-8 and hxmok1/be/utf-8");
  }
  Transcoder(source, encodingId, path).run();
}

}  // namespace hxcrate
