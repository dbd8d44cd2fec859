#include "inspect/record_reader.h"

namespace hxcrate {

RecordReader::RecordReader(const ByteSource& source)
    : source_(source), cache_(std::make_unique<ReadCache>(source)), length_(source.length()) {
  const std::optional<hx::Header> raw = read<hx::Header>(0);
  if (!raw) {
    throw Error(Errc::notAStore, source.name(), "",
                "it has " + std::to_string(length_) + " bytes, a header alone has 40");
  }
  const std::optional<bool> turned = isTurned(textOf(raw->encodingId));
  if (!turned) throw Error(Errc::unknownEncoding, source.name(), "", "bytes 0 to 23");
  header_ = *raw;
  isTurned_ = *turned;
  if (isTurned_) turn(header_);
  pageSize_ = hx::pageSizeFromCode(header_.pageSizeCode);
}

}  // namespace hxcrate
