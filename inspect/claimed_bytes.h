// Who owns the bytes of a file: each has one owner, the first that claimed it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace hxcrate {

struct ByteRange {
  int64_t start;
  int64_t end;  // behind the last byte

  int64_t length() const { return end - start; }
  bool operator==(const ByteRange&) const = default;
};

struct OwnedRange {
  ByteRange range;  // empty, at the end of what was asked for: there is none
  std::size_t owner;
};

// Neighbouring ranges of one owner are kept as one, so that memory grows with the owners and with
// how scattered they lie.
class ClaimedBytes {
 public:
  // The first part of `range` that has an owner.
  OwnedRange findOwned(ByteRange range) const;

  // `range` has no owner yet and is not empty.
  void claim(ByteRange range, std::size_t owner);

  // The parts of `range` that nobody owns.
  std::vector<ByteRange> listFree(ByteRange range) const;

 private:
  struct End {
    int64_t end;
    std::size_t owner;
  };

  std::map<int64_t, End> ranges_;  // by their starts; apart from each other
};

}  // namespace hxcrate
