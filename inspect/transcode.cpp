#include <utility>

#include "hxcrate/inspect.hpp"
#include "inspect/record_reader.h"
#include "inspect/refusal.h"

namespace hxcrate {

namespace {

constexpr std::size_t kTransferSize = 1 << 20;

class Transcoder {
 public:
  Transcoder(const ByteSource& source, std::string_view encodingId, const PutBytes& put)
      : source_(source), reader_(source, {}), encodingId_(encodingId), put_(put) {}

  void run() {
    copyAll();
    Inspection inspection(source_, refuseDamage(source_));
    const bool turns = isTurned(inspection.encoding()) != isTurned(encodingId_);
    inspection.walkPages({.onExtent = [&](const Extent& extent) {
      if (turns || extent.kind == ByteKind::header) writeTurned(extent, turns);
    }});
  }

 private:
  void copyAll() {
    std::vector<std::byte> buffer(kTransferSize);
    for (int64_t at = 0; at < reader_.length();) {
      const std::size_t count = source_.read(at, buffer);
      if (count == 0) failReading(source_, at);
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
      failReading(source_, offset);
    }
    return record;
  }

  template <typename Record>
  void write(int64_t offset, Record record, bool turns) {
    if (turns) turn(record);
    put_(offset, std::as_bytes(std::span(&record, 1)));
  }

  const ByteSource& source_;
  const RecordReader reader_;
  std::string_view encodingId_;
  const PutBytes& put_;
};

}  // namespace

void transcode(const ByteSource& source, std::string_view encodingId, const PutBytes& put) {
  requireKnown(encodingId);
  Transcoder(source, encodingId, put).run();
}

}  // namespace hxcrate
