#include "file/translation.h"

#include "records/bytes.h"

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

Converter** placeOf(Store* root, Direction direction) {
  return direction == Direction::toInstance ? &root->storeToInstanceConverter
                                            : &root->instanceToStoreConverter;
}

void releaseOne(Converter*& kept) {
  if (kept != nullptr) kept->release(kept);
  kept = nullptr;
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

bool isForeign(const Store* store) {
  return !equalBytes(&store->encodingId, &store->extension->encodingId, sizeof(EncodingId));
}

// Atomic, because readers look for it while another one makes it.
Converter* keptConverter(const Store* store, Direction direction) {
  return __atomic_load_n(placeOf(store->root, direction), __ATOMIC_ACQUIRE);
}

Converter* makeConverter(Store* store, Direction direction) {
  Converter* kept = keptConverter(store, direction);
  const ExtensionInstance* instance = store->extension;
  Encoding* encoding = instance->encodingExtension;
  if (kept != nullptr || encoding == nullptr) return kept;
  const bool reads = direction == Direction::toInstance;
  const EncodingId* from = reads ? &store->encodingId : &instance->encodingId;
  const EncodingId* to = reads ? &instance->encodingId : &store->encodingId;
  kept = encoding->makeConverter(encoding, 0, from, to);
  __atomic_store_n(placeOf(store->root, direction), kept, __ATOMIC_RELEASE);
  return kept;
}

void releaseConverters(Store* root) {
  releaseOne(root->instanceToStoreConverter);
  releaseOne(root->storeToInstanceConverter);
}

bool translate(Store* store, void* record, int32_t length, const RecordMapEntry* map) {
  if (!isForeign(store)) return true;
  Converter* converter = makeConverter(store, Direction::toInstance);
  if (converter == nullptr) return false;
  // Starts as the record, so that a host that leaves bytes unwritten gives no stale stack.
  uint8_t converted[kLongestRecord];
  copyBytes(converted, record, static_cast<uint64_t>(length));
  converter->convertRecord(converter, map, record, length, converted, kLongestRecord);
  copyBytes(record, converted, static_cast<uint64_t>(length));
  return true;
}

}  // namespace hx
