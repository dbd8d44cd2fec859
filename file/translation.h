// What a tree needs whose data are in another encoding than the instance's: the maps of the three
// records, the tree's two converters, and records made ready for use. The converters live on the
// top-level store, are made on first need and released when its last opener leaves, and once more
// with the last item handle that is closed behind it.
#pragma once

#include "file/format.h"
#include "records/export.h"
#include "records/records.h"

namespace hx {

extern "C" {

// What a converter is told about each record of the format.
HX_EXPORT extern const RecordMapEntry HEADER_map[6];
HX_EXPORT extern const RecordMapEntry ENTRY_map[8];
HX_EXPORT extern const RecordMapEntry DATACHUNK_map[7];

}  // extern "C"

static_assert(sizeof(HEADER_map) == 24);
static_assert(sizeof(ENTRY_map) == 32);
static_assert(sizeof(DATACHUNK_map) == 28);

constexpr int32_t kLongestRecord = 256;

enum class Direction { toInstance, toStore };

// True when the store's data and the instance have different encodings.
bool isForeign(const Store* store);

// The tree's converter if there is one by now. Needs no lock.
Converter* keptConverter(const Store* store, Direction direction);

// The tree's converter, made if there is none; null when the host has none for the pair. The caller
// holds the instance's lock, or the tree is still nobody else's.
Converter* makeConverter(Store* store, Direction direction);

void releaseConverters(Store* root);

// Makes a record of `length` bytes, at most kLongestRecord, that was read as it stands usable, in
// place. False when there is no converter for it, which leaves it as it was. Called like
// makeConverter.
bool translate(Store* store, void* record, int32_t length, const RecordMapEntry* map);

inline bool translate(Store* store, Header* header) {
  return translate(store, header, kHeaderSize, HEADER_map);
}
inline bool translate(Store* store, Entry* entry) {
  return translate(store, entry, kEntrySize, ENTRY_map);
}
inline bool translate(Store* store, DataChunk* chunk) {
  return translate(store, chunk, kChunkSize, DATACHUNK_map);
}

}  // namespace hx
