#include "host/linux/encoding_service.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <new>
#include <optional>

#include "host/linux/byte_order.h"
#include "host/linux/conversion.h"
#include "host/linux/known_encodings.h"

namespace hxhost {
namespace {

using Identity = std::array<char, hx::HX_ENCODING_ID_LENGTH>;

constexpr Identity identityOf(const KnownEncoding& encoding) {
  Identity identity{};
  std::copy(encoding.identity.begin(), encoding.identity.end(), identity.begin());
  return identity;
}

constexpr int32_t kDone = 0;
constexpr int32_t kFailed = 1;

struct OrderConverter : hx::Converter {
  bool swaps = false;
};

std::optional<std::endian> byteOrderOf(const void* id) {
  if (id == nullptr) return std::nullopt;
  for (const KnownEncoding& known : kKnownEncodings) {
    if (std::memcmp(id, identityOf(known).data(), sizeof(Identity)) == 0) return known.order;
  }
  return std::nullopt;
}

bool convertsOrder(const hx::Converter* converter) {
  return static_cast<const OrderConverter*>(converter)->swaps;
}

// The width of the elements that the conversion argument tells of; 0 when it tells nothing known.
int64_t elementWidth(const void* argument) {
  if (argument == nullptr) return 0;
  const int32_t kind = static_cast<const hx::ItemConversion*>(argument)->kind;
  switch (kind) {
    case hx::HX_CONVERT_TEXT:
    case hx::HX_CONVERT_ELEMENTS2:
    case hx::HX_CONVERT_ELEMENTS4:
    case hx::HX_CONVERT_ELEMENTS8:
      return kind;
    default:
      return 0;
  }
}

int32_t convertRecordSlot(hx::Converter* converter, const void* map, const void* record,
                          int64_t length, void* out, int64_t outSize) noexcept {
  const int64_t bytes = std::min(length, outSize);
  if (record == nullptr || out == nullptr || bytes <= 0) return kFailed;
  std::memmove(out, record, static_cast<size_t>(bytes));
  if (bytes < length) return kFailed;
  if (!convertsOrder(converter)) return kDone;
  const auto* entries = static_cast<const hx::RecordMapEntry*>(map);
  const bool swapped = entries != nullptr && swapRecord(static_cast<uint8_t*>(out), bytes, entries);
  return swapped ? kDone : kFailed;
}

int32_t convertSlot(hx::Converter* converter, void* argument, const void* stored,
                    int64_t storedLength, void* buffer, int64_t bufferLength, const void**,
                    uint32_t* resultCount) noexcept {
  if (resultCount == nullptr) return kFailed;
  *resultCount = 0;
  const int64_t width = elementWidth(argument);
  if (width == 0 || storedLength < 0 || storedLength > bufferLength) return kFailed;
  if (storedLength > std::numeric_limits<uint32_t>::max()) return kFailed;
  if (storedLength == 0) return kDone;
  if (stored == nullptr || buffer == nullptr) return kFailed;
  std::memmove(buffer, stored, static_cast<size_t>(storedLength));
  if (convertsOrder(converter)) swapElements(static_cast<uint8_t*>(buffer), storedLength, width);
  *resultCount = static_cast<uint32_t>(storedLength);
  return kDone;
}

uint32_t measureSlot(hx::Converter*, void* argument, const void*, int64_t length) noexcept {
  const int64_t width = elementWidth(argument);
  if (width == 0 || length < width) return 0;
  const int64_t bounded = std::min<int64_t>(length, std::numeric_limits<uint32_t>::max());
  return static_cast<uint32_t>(bounded - bounded % width);
}

void releaseSlot(hx::Converter* converter) noexcept {
  delete static_cast<OrderConverter*>(converter);
}

hx::Converter* makeConverterSlot(hx::Encoding*, int64_t, const void* fromId,
                                 const void* toId) noexcept {
  const auto from = byteOrderOf(fromId);
  const auto to = byteOrderOf(toId);
  if (!from || !to) return nullptr;
  auto* converter = new (std::nothrow) OrderConverter{};
  if (converter == nullptr) return nullptr;
  converter->head = {{'c', 'o', 'n', 'v'}, {}, nullptr, nullptr, nullptr, nullptr};
  converter->convertRecord = convertRecordSlot;
  converter->convert = convertSlot;
  converter->measure = measureSlot;
  converter->release = releaseSlot;
  converter->swaps = *from != *to;
  return converter;
}

int32_t fillEncodingIdSlot(hx::Encoding*, void* buffer, int64_t length, int64_t, int64_t) noexcept {
  if (buffer == nullptr || length != int64_t{sizeof(Identity)}) return kFailed;
  std::memcpy(buffer, identityOf(kNativeEncoding).data(), sizeof(Identity));
  return kDone;
}

int32_t destroySlot(void* object) noexcept {
  delete static_cast<hx::Encoding*>(object);
  return 0;
}

}  // namespace

hx::Encoding* makeEncodingService() noexcept {
  auto* encoding = new (std::nothrow) hx::Encoding{};
  if (encoding == nullptr) return nullptr;
  encoding->head = {{'m', 'o', 'k', '1'}, {}, nullptr, nullptr, nullptr, destroySlot};
  encoding->makeConverter = makeConverterSlot;
  encoding->fillEncodingId = fillEncodingIdSlot;
  return encoding;
}

}  // namespace hxhost
