#include <utility>

#include "hxcrate/inspect.hpp"
#include "inspect/record_reader.h"

namespace hxcrate {

namespace {

constexpr std::size_t kTransferSize = 1 << 20;

class Transcoder {
 public:
  Transcoder(const ByteSource& source, std::string_view encodingId, const PutBytes& put)
      : source_(source), reader_(source, {}), encodingId_(encodingId), put_(put) {}

  void run() {
    copyAll();
    Inspection inspection(source_, [this](const Finding& finding) { refuse(finding); });
    const bool turns = isTurned(inspection.encoding()) != isTurned(encodingId_);
    inspection.walkPages({.onExtent = [&](const Extent& extent) {
      if (turns || extent.kind == ByteKind::header) writeTurned(extent, turns);
    }});
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
      put_(at, std::span(buffer).first(count));
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
    put_(offset, std::as_bytes(std::span(&record, 1)));
  }

  [[noreturn]] void failReading(int64_t offset) const {
    throw Error(Errc::fileFailed, source_.name(), "",
                "byte " + std::to_string(offset) + " can't be read");
  }

  const ByteSource& source_;
  const RecordReader reader_;
  std::string_view encodingId_;
  const PutBytes& put_;
};

}  // namespace

void transcode(const ByteSource& source, std::string_view encodingId, const PutBytes& put) {
  if (!isTurned(encodingId)) {
    throw Error(Errc::unknownEncoding, std::string(encodingId), "", "known are " + listEncodings());
  }
  Transcoder(source, encodingId, put).run();
}

}  // namespace hxcrate
