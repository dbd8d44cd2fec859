#include "hxcrate/listing.hpp"

#include <algorithm>
#include <vector>

#include "member_cursor.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

// Depth first, by the records alone: no store is opened, as long as the top-level store is.
class ListingWalk {
 public:
  ListingWalk(std::shared_ptr<Opening> opening, hx::Store* store, ListOptions options)
      : opening_(std::move(opening)), start_(store), options_(options) {
    enter(store);
  }

  bool next(ListedMember& listed) {
    opening_->requireKept(*start_);
    while (!levels_.empty() && levels_.back().next == levels_.back().members.size())
      levels_.pop_back();
    if (levels_.empty()) return false;
    Level& level = levels_.back();
    const Found& found = level.members[level.next++];
    path_.resize(level.pathLength);
    path_.append(path_.empty() ? "" : "/").append(found.name);
    const bool isStore = found.record->kind == hx::kStoreKind;
    listed = {path_, isStore ? MemberKind::store : MemberKind::item,
              isStore || !options_.hasSizes ? -1 : sizeOf(found.record)};
    if (isStore && options_.isRecursive) enter(hx::asStore(found.record));
    return true;
  }

 private:
  struct Found {
    std::string name;
    hx::Member* record;
  };
  struct Level {
    std::vector<Found> members;
    std::size_t next = 0;
    std::size_t pathLength;  // of the store
  };

  void enter(hx::Store* store) {
    Level level{{}, 0, path_.size()};
    MemberCursor cursor(opening_, store);
    for (Found found; (found.record = cursor.next(found.name)) != nullptr;)
      level.members.push_back(found);
    if (options_.isSorted) std::ranges::sort(level.members, {}, &Found::name);
    levels_.push_back(std::move(level));
  }

  std::int64_t sizeOf(hx::Member* record) {
    std::int32_t status = hx::kOk;
    const std::int64_t size = opening_->module()->sizeOfItem(hx::asItem(record), &status);
    if (size < 0) opening_->fail(status, pathOf(*hx::asItem(record)));
    return size;
  }

  std::shared_ptr<Opening> opening_;
  hx::Store* start_;
  ListOptions options_;
  std::vector<Level> levels_;
  std::string path_;
};

bool showNext(ListingWalk& walk, ListedMember& listed) {
  return walk.next(listed);
}

Listing::Iterator Listing::begin() const {
  if (opening_ == nullptr) throw Error(Errc::closed, "", "");
  return Iterator(std::make_shared<ListingWalk>(opening_, store_, options_));
}

}  // namespace hxcrate
