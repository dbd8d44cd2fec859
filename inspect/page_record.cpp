#include "inspect/page_record.h"

namespace hxcrate {

PageFault findFault(const hx::DataChunk& chunk, const RecordReader& reader) {
  const int32_t pageSize = reader.pageSize();
  if (chunk.capacity == 0) {
    const bool isEmpty = chunk.dataOffset == 0 && chunk.used == 0 && chunk.next == 0;
    return isEmpty ? PageFault::none : PageFault::notAllZero;
  }
  if (pageSize == 0) return PageFault::pageSizeUnknown;
  if (chunk.capacity != pageSize) return PageFault::capacity;
  if (chunk.used < 0 || chunk.used > pageSize) return PageFault::used;
  if (chunk.next != 0 && chunk.used != pageSize) return PageFault::notFull;
  if (!reader.holds(chunk.dataOffset, chunk.used)) return PageFault::place;
  const bool isLast = chunk.next == 0;
  return isLast || reader.holds(chunk.next, hx::kChunkSize) ? PageFault::none : PageFault::next;
}

}  // namespace hxcrate
