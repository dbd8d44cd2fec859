// Reading item bytes that were written in another encoding, through a pair of the host's
// converters.
#pragma once

#include "records/records.h"
#include "records/status.h"

namespace hx {

// One read's conversion: a block for the stored bytes, and the call that turns them into the
// caller's. Not used with the instance's lock held: making a converter takes it.
class Conversion {
 public:
  Conversion(ItemHandle* handle, void* argument) : handle_(handle), argument_(argument) {}
  ~Conversion();
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;

  // Whether the caller asked for it and the encodings differ.
  bool applies() const;

  // Gets a block for the stored bytes of a read of `length` bytes into `buffer`.
  Status prepare(const void* buffer, int32_t length);
  uint8_t* storedBytes() const { return stored_; }
  int64_t storedLength() const { return storedLength_; }

  // Converts `count` stored bytes into `buffer`. `converted` is how many bytes came of it.
  Status convert(int64_t count, void* buffer, int32_t length, uint32_t* converted);

 private:
  ItemHandle* handle_;
  void* argument_;
  uint8_t* stored_ = nullptr;
  int64_t storedLength_ = 0;
};

}  // namespace hx
