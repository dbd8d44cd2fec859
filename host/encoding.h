// The host extension `hxmok`: the identity of the encoding this process writes, and converters
// from one encoding to another for records and for item bytes. Plain C, fixed byte layouts.
#pragma once

#include "host/kernel.h"

#ifdef __cplusplus
namespace hx {
extern "C" {
#endif

typedef struct Encoding Encoding;
typedef struct Converter Converter;

enum { HX_ENCODING_ID_LENGTH = 24 };

// A record map is an array of these; it tells a converter a record's fields, which follow each
// other without gaps. A map opens with HX_FIELD_BEGIN, closes with HX_FIELD_END and is terminated
// by an entry of four zero bytes.
typedef struct RecordMapEntry {
  uint8_t repeat;  // how many consecutive fields of this type; 0 in the markers
  uint8_t zero;
  uint8_t flags;  // HX_FIELD_ARRAY for an array of characters, else 0
  uint8_t type;   // one of the codes below
} RecordMapEntry;

enum {
  HX_FIELD_TERMINATOR = 0x00,
  HX_FIELD_CHARACTER = 0x06,  // 8 bits, left as it is
  HX_FIELD_BEGIN = 0x09,
  HX_FIELD_END = 0x0a,
  HX_FIELD_INT64 = 0x19,  // signed, 8 bytes
  HX_FIELD_INT32 = 0x1b,  // signed, 4 bytes
  HX_FIELD_ARRAY = 0x40   // a flag, not a type
};

struct Encoding {
  ObjectHead head;
  // A converter for data in the encoding `fromId` to the encoding `toId` (24 bytes each), or null
  // when the host knows none for the pair. May be called by several threads at once.
  Converter* (*makeConverter)(Encoding* encoding, int64_t zero, const void* fromId,
                              const void* toId);
  // Writes the identity of the encoding that this process writes: `length` is 24. The result is
  // ignored. May be called by several threads at once.
  int32_t (*fillEncodingId)(Encoding* encoding, void* buffer, int64_t length, int64_t zero,
                            int64_t alsoZero);
};

// One pair of encodings. `convert` and `measure` are called by several threads at once.
// `head.destroy` is null: a converter is dropped by `release`.
struct Converter {
  ObjectHead head;
  // Leaves the converted record, `length` bytes of the same layout, in `out` (of `outSize` bytes,
  // 256, never less than `length`), whatever it returns: the result is ignored.
  int32_t (*convertRecord)(Converter* converter, const void* map, const void* record,
                           int64_t length, void* out, int64_t outSize);
  // Converts `storedLength` item bytes into `buffer`, at most `bufferLength`, and reports through
  // `resultCount` how many bytes it put there. `argument` is what the reader passed to the read
  // and says what the bytes are. 0 on success. `storedAddress` points to a variable that holds
  // `stored`; the module does not look at it afterwards.
  int32_t (*convert)(Converter* converter, void* argument, const void* stored, int64_t storedLength,
                     void* buffer, int64_t bufferLength, const void** storedAddress,
                     uint32_t* resultCount);
  // How many stored bytes to read for `length` converted ones in `buffer`; 0 on failure, as for a
  // negative length.
  uint32_t (*measure)(Converter* converter, void* argument, const void* buffer, int64_t length);
  void (*release)(Converter* converter);
};

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(RecordMapEntry) == 4);
static_assert(offsetof(Encoding, makeConverter) == 56);
static_assert(offsetof(Encoding, fillEncodingId) == 64);
static_assert(offsetof(Converter, convertRecord) == 56);
static_assert(offsetof(Converter, convert) == 64);
static_assert(offsetof(Converter, measure) == 72);
static_assert(offsetof(Converter, release) == 80);
}  // namespace hx
#endif
