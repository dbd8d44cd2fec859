#include "inspect/claimed_bytes.h"

#include <algorithm>
#include <iterator>

namespace hxcrate {

OwnedRange ClaimedBytes::findOwned(ByteRange range) const {
  auto found = ranges_.upper_bound(range.start);
  if (found != ranges_.begin() && std::prev(found)->second.end > range.start) --found;
  if (found == ranges_.end() || found->first >= range.end) return {{range.end, range.end}, 0};
  const auto& [start, end] = *found;
  return {{std::max(start, range.start), std::min(end.end, range.end)}, end.owner};
}

void ClaimedBytes::claim(ByteRange range, std::size_t owner) {
  auto after = ranges_.upper_bound(range.start);
  if (after != ranges_.end() && after->first == range.end && after->second.owner == owner) {
    range.end = after->second.end;
    after = ranges_.erase(after);
  }
  if (after != ranges_.begin()) {
    End& before = std::prev(after)->second;
    if (before.end == range.start && before.owner == owner) {
      before.end = range.end;
      return;
    }
  }
  ranges_.emplace_hint(after, range.start, End{range.end, owner});
}

std::vector<ByteRange> ClaimedBytes::listFree(ByteRange range) const {
  std::vector<ByteRange> free;
  while (range.start < range.end) {
    const OwnedRange owned = findOwned(range);
    if (owned.range.start > range.start) free.push_back({range.start, owned.range.start});
    range.start = owned.range.end;
  }
  return free;
}

}  // namespace hxcrate
