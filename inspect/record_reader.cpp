#include "inspect/record_reader.h"

namespace hxcrate {

RecordReader::RecordReader(const ByteSource& source, const HeaderOverride& instead)
    : source_(source), cache_(std::make_unique<ReadCache>(source)), length_(source.length()) {
  const std::optional<hx::Header> raw = read<hx::Header>(0);
  if (!raw) {
    throw Error(Errc::notAStore, source.name(), "",
                "it has " + std::to_string(length_) + " bytes, a header alone has 40");
  }
  header_ = *raw;
  const std::string encoding =
      instead.encoding.empty() ? std::string(textOf(header_.encodingId)) : instead.encoding;
  const std::optional<bool> turned = isTurned(encoding);
  if (!turned) throw Error(Errc::unknownEncoding, source.name(), "", "bytes 0 to 23");
  isTurned_ = *turned;
  arrange(header_);
  setIdentity(header_.encodingId, encoding);
  if (instead.pageSize > 0) header_.pageSizeCode = hx::pageSizeCodeOf(instead.pageSize);
  pageSize_ = hx::pageSizeFromCode(header_.pageSizeCode);
}

}  // namespace hxcrate
