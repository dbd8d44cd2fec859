#include "inspect/record_turn.h"

#include <algorithm>
#include <bit>
#include <cstdint>

#include "hxcrate/inspect.hpp"

namespace hxcrate {

namespace {

static_assert(std::endian::native == std::endian::little);

void turnField(int64_t& field) {
  field = static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(field)));
}

void turnField(int32_t& field) {
  field = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(field)));
}

}  // namespace

std::string_view textOf(const hx::EncodingId& id) {
  const std::string_view all(reinterpret_cast<const char*>(id.bytes), sizeof(id.bytes));
  const std::size_t end = all.find_last_not_of('\0');
  return all.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

std::optional<bool> isTurned(std::string_view identity) {
  return isBigEndian(identity);
}

void setIdentity(hx::EncodingId& id, std::string_view identity) {
  id = {};
  std::copy(identity.begin(), identity.end(), id.bytes);
}

void turn(hx::Header& header) {
  turnField(header.pageSizeCode);
  turnField(header.directoryOffset);
}

void turn(hx::Entry& entry) {
  turnField(entry.parentLink);
  turnField(entry.previousLink);
  turnField(entry.next);
  turnField(entry.firstLink);
}

void turn(hx::DataChunk& chunk) {
  turnField(chunk.dataOffset);
  turnField(chunk.capacity);
  turnField(chunk.used);
  turnField(chunk.next);
}

}  // namespace hxcrate
