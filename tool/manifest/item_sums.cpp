#include "item_sums.h"

#include <utility>

namespace tool {

ItemSums::ItemSums(hxcrate::Store store, const Selection& selection, Progress* progress,
                   OnError onError)
    : walk_(std::move(store), &selection), pump_(progress), onError_(std::move(onError)) {}

bool ItemSums::next() {
  for (auto event = walk_.next(); event != StoreWalk::Event::end; event = walk_.next()) {
    throwIfInterrupted();
    if (event != StoreWalk::Event::leave && open(event)) return true;
  }
  return false;
}

// Whether it is an item.
bool ItemSums::open(StoreWalk::Event event) {
  const bool isItem = event == StoreWalk::Event::item;
  item_.reset();
  try {
    isItem ? void(item_ = walk_.container().read(walk_.name())) : walk_.enter();
    bytes_ += size();
  } catch (const hxcrate::Error& error) {
    item_.reset();
    onError_(error);
    limit_.requireRead(walk_.container());
  }
  limit_.require(walk_.container(), bytes_);
  return isItem;
}

std::optional<Sha256::Digest> ItemSums::sum(std::int64_t most) {
  if (!item_) return std::nullopt;
  Sha256 sha256;
  try {
    pump_.move(most, takeFrom(*item_),
               [&](std::span<const std::byte> bytes) { sha256.add(bytes); });
    return sha256.finish();
  } catch (const hxcrate::Error& error) {
    onError_(error);
    return std::nullopt;
  }
}

std::int64_t compareSums(ItemSums& sums, ChecksumList list, const Selection& selection,
                         const std::function<void(SumFault, const std::string& place)>& onFault) {
  std::int64_t equal = 0;
  while (sums.next()) {
    const auto expected = list.find(sums.place());
    if (expected == list.end()) {
      if (sums.place() != kManifestName) onFault(SumFault::unlisted, sums.place());
      continue;
    }
    const ExpectedItem wanted = expected->second;
    list.erase(expected);
    if (!wanted.sha256) {
      onFault(SumFault::unsummed, sums.place());
      continue;
    }
    const bool hasGrown = wanted.size && sums.size() > *wanted.size;
    const auto digest = sums.sum(hasGrown ? *wanted.size : BytePump::kEverything);
    const bool isEqual = digest == wanted.sha256;
    if (digest && !isEqual) onFault(SumFault::differs, sums.place());
    if (isEqual && hasGrown) onFault(SumFault::grown, sums.place());
    if (isEqual && !hasGrown) ++equal;
  }
  for (const auto& [place, expected] : list)
    if (selection.judge(place, false) == Selection::Verdict::yes) onFault(SumFault::missing, place);
  return equal;
}

}  // namespace tool
