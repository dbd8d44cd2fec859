#include "host/linux/byte_order.h"

#include <cstring>

namespace hxhost {
namespace {

uint16_t reverseBytes(uint16_t value) {
  return __builtin_bswap16(value);
}
uint32_t reverseBytes(uint32_t value) {
  return __builtin_bswap32(value);
}
uint64_t reverseBytes(uint64_t value) {
  return __builtin_bswap64(value);
}

template <typename Element>
void swapAll(uint8_t* bytes, int64_t count) {
  for (int64_t i = 0; i < count; ++i) {
    Element element;
    std::memcpy(&element, bytes + i * int64_t{sizeof element}, sizeof element);
    element = reverseBytes(element);
    std::memcpy(bytes + i * int64_t{sizeof element}, &element, sizeof element);
  }
}

// The width of one field of that type; 0 for markers and unknown types.
int64_t fieldWidth(uint8_t type) {
  switch (type) {
    case hx::HX_FIELD_CHARACTER:
      return 1;
    case hx::HX_FIELD_INT32:
      return 4;
    case hx::HX_FIELD_INT64:
      return 8;
    default:
      return 0;
  }
}

bool mapCovers(const hx::RecordMapEntry* map, int64_t length) {
  if (map->type != hx::HX_FIELD_BEGIN) return false;
  int64_t covered = 0;
  for (++map; map->type != hx::HX_FIELD_END; ++map) {
    const int64_t bytes = map->repeat * fieldWidth(map->type);
    if (bytes == 0 || bytes > length - covered) return false;
    covered += bytes;
  }
  return covered == length;
}

}  // namespace

void swapElements(uint8_t* bytes, int64_t length, int64_t width) {
  switch (width) {
    case 2:
      return swapAll<uint16_t>(bytes, length / 2);
    case 4:
      return swapAll<uint32_t>(bytes, length / 4);
    case 8:
      return swapAll<uint64_t>(bytes, length / 8);
    default:
      return;
  }
}

bool swapRecord(uint8_t* record, int64_t length, const hx::RecordMapEntry* map) {
  if (!mapCovers(map, length)) return false;
  for (++map; map->type != hx::HX_FIELD_END; ++map) {
    const int64_t width = fieldWidth(map->type);
    swapElements(record, map->repeat * width, width);
    record += map->repeat * width;
  }
  return true;
}

}  // namespace hxhost
