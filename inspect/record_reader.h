// The records of a file, in this machine's byte order.
#pragma once

#include <optional>
#include <string>

#include "hxcrate/inspect.hpp"
#include "inspect/read_cache.h"
#include "inspect/record_turn.h"

namespace hxcrate {

class RecordReader {
 public:
  // Reads the header. Throws notAStore, unknownEncoding.
  RecordReader(const ByteSource& source, const HeaderOverride& instead);

  const ByteSource& source() const { return source_; }
  const hx::Header& header() const { return header_; }
  int64_t length() const { return length_; }      // of the file when it was first looked at
  int32_t pageSize() const { return pageSize_; }  // 0: the header states none

  // Whether `length` bytes at `offset` lie behind the header and in the file.
  bool holds(int64_t offset, int64_t length) const {
    return offset >= hx::kHeaderSize && length <= length_ && offset <= length_ - length;
  }

  // False when they can't be read all.
  bool readBytes(int64_t offset, std::span<std::byte> to) const { return cache_->read(offset, to); }

  // Makes a record as it is stored one of this machine's.
  template <typename Record>
  void arrange(Record& record) const {
    if (isTurned_) turn(record);
  }

  // Nothing when it can't be read.
  std::optional<hx::Entry> readEntry(int64_t offset) const { return read<hx::Entry>(offset); }
  std::optional<hx::DataChunk> readChunk(int64_t offset) const {
    return read<hx::DataChunk>(offset);
  }

 private:
  template <typename Record>
  std::optional<Record> read(int64_t offset) const {
    Record record;
    if (!readBytes(offset, std::as_writable_bytes(std::span(&record, 1)))) return std::nullopt;
    arrange(record);
    return record;
  }

  const ByteSource& source_;
  std::unique_ptr<ReadCache> cache_;
  int64_t length_;
  hx::Header header_{};
  bool isTurned_ = false;
  int32_t pageSize_ = 0;
};

}  // namespace hxcrate
