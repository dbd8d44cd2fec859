// The checksums of a store's items, and whether they are what they should be.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "checksum_list.h"
#include "tool/files/byte_pump.h"
#include "tool/trees/selection.h"
#include "tool/trees/store_walk.h"

namespace tool {

// Goes through the items that are meant, by the bytes of their names.
class ItemSums {
 public:
  // What can't be read is told to `onError`, and the others go on.
  using OnError = std::function<void(const hxcrate::Error&)>;

  // `selection` outlives it. `progress`: null: nobody is told.
  ItemSums(hxcrate::Store store, const Selection& selection, Progress* progress, OnError onError);

  // Goes on to the next item; false: there is none. Throws a Failure for items that share pages.
  bool next();

  const std::string& place() const { return walk_.place(); }
  std::int64_t size() const { return item_ ? item_->size() : 0; }
  // Once, of the first `most` bytes; nothing when they can't be read.
  std::optional<Sha256::Digest> sum(std::int64_t most = BytePump::kEverything);

 private:
  bool open(StoreWalk::Event event);

  const OwnBytes limit_;
  StoreWalk walk_;
  BytePump pump_;
  OnError onError_;
  std::optional<hxcrate::Reader> item_;  // nothing: it can't be opened
  std::int64_t bytes_ = 0;
};

enum class SumFault {
  differs,
  grown,     // the bytes that the checksum is of are there still, and more of them
  missing,   // no such item
  unlisted,  // an item that the list does not tell of
  unsummed,  // the list tells of it, but has no checksum
};

// Tells `onFault` of every item among those that `sums` goes through, and of those in the list that
// `selection` means, that is not as listed. Returns how many are.
std::int64_t compareSums(ItemSums& sums, ChecksumList list, const Selection& selection,
                         const std::function<void(SumFault, const std::string& place)>& onFault);

}  // namespace tool
