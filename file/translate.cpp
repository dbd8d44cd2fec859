#include "file/translate.h"

#include "file/converters.h"
#include "records/bytes.h"

namespace hx {

constexpr int32_t kLongestRecord = 256;

extern "C" int32_t translateStructure(Store* store, void* record, int32_t length,
                                      const RecordMapEntry* map) {
  if (length < 0 || length > kLongestRecord) return -1;
  if (!isForeign(store)) return 0;
  Converter* converter = makeConverter(store, Direction::toInstance);
  if (converter == nullptr) return -1;
  // Starts as the record, so that a host that leaves bytes unwritten gives no stale stack.
  uint8_t converted[kLongestRecord];
  copyBytes(converted, record, static_cast<uint64_t>(length));
  converter->convertRecord(converter, map, record, length, converted, kLongestRecord);
  copyBytes(record, converted, static_cast<uint64_t>(length));
  return 0;
}

}  // namespace hx
