// What a record of a page must be like, whichever item it belongs to.
#pragma once

#include "inspect/record_reader.h"

namespace hxcrate {

// In the order in which they are looked for.
enum class PageFault {
  none,
  notAllZero,       // no capacity, as only the all-zero record of an empty item has
  pageSizeUnknown,  // the header states none
  capacity,         // not the page size
  used,             // not 0 to the page size
  notFull,          // although another page follows
  place,            // the used bytes are not in the file
  next,             // leads to no place for a record
};

PageFault findFault(const hx::DataChunk& chunk, const RecordReader& reader);

inline bool isSound(const hx::DataChunk& chunk, const RecordReader& reader) {
  return findFault(chunk, reader) == PageFault::none;
}

}  // namespace hxcrate
