#include "file/record_maps.h"

#include "file/format.h"

namespace hx {

namespace {

constexpr RecordMapEntry kBegin{0, 0, 0, HX_FIELD_BEGIN};
constexpr RecordMapEntry kEnd{0, 0, 0, HX_FIELD_END};
constexpr RecordMapEntry kTerminator{0, 0, 0, HX_FIELD_TERMINATOR};
constexpr RecordMapEntry kInt64{1, 0, 0, HX_FIELD_INT64};
constexpr RecordMapEntry kInt32{1, 0, 0, HX_FIELD_INT32};

constexpr RecordMapEntry characters(uint8_t count) {
  return {count, 0, HX_FIELD_ARRAY, HX_FIELD_CHARACTER};
}

template <size_t count>
constexpr uint64_t recordLength(const RecordMapEntry (&map)[count]) {
  uint64_t length = 0;
  for (const RecordMapEntry& entry : map) {
    const uint64_t width = entry.type == HX_FIELD_INT64 ? 8 : entry.type == HX_FIELD_INT32 ? 4 : 1;
    length += entry.repeat * width;
  }
  return length;
}

}  // namespace

extern "C" {

constexpr RecordMapEntry HEADER_map[6] = {
    kBegin, characters(HX_ENCODING_ID_LENGTH), kInt64, kInt64, kEnd, kTerminator};
constexpr RecordMapEntry ENTRY_map[8] = {
    kBegin, kInt64, kInt64, kInt64, kInt64, characters(kStoredNameLength), kEnd, kTerminator};
constexpr RecordMapEntry DATACHUNK_map[7] = {kBegin, kInt64, kInt32,     kInt32,
                                             kInt64, kEnd,   kTerminator};

}  // extern "C"

static_assert(recordLength(HEADER_map) == sizeof(Header));
static_assert(recordLength(ENTRY_map) == sizeof(Entry));
static_assert(recordLength(DATACHUNK_map) == sizeof(DataChunk));

}  // namespace hx
