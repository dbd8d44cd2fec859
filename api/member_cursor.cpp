#include "member_cursor.h"

#include <bit>

#include "member_path.h"
#include "records/status.h"

namespace hxcrate {

MemberCursor::MemberCursor(std::shared_ptr<Opening> opening, hx::Store* store)
    : opening_(std::move(opening)), store_(store) {
  opening_->requireKept(*store_);
  hx::Lock* lock = store->extension->lock;
  if (lock->acquire(lock, 1, 1) != 0) opening_->fail(hx::kNotLocked, pathOf(*store));
  table_ = store->members;
  lock->release(lock);
}

bool MemberCursor::next(Member& member) {
  hx::Member* found = next(member.name);
  if (found == nullptr) return false;
  const bool isStore = found->kind == hx::kStoreKind;
  member.kind = isStore ? MemberKind::store : MemberKind::item;
  member.place = isStore ? hx::asStore(found)->directoryOffset
                         : static_cast<std::int64_t>(hx::asItem(found)->firstChunkOffset);
  return true;
}

bool showNext(MemberCursor& cursor, Member& member) {
  return cursor.next(member);
}

hx::Member* MemberCursor::next(std::string& name) {
  opening_->requireKept(*store_);
  while (shown_ == chain_.size()) {
    if (!fillChain()) return nullptr;
  }
  hx::Member* found = chain_[shown_++];
  narrowName(nameOf(*found), name);
  return found;
}

// Takes the next chain that has members; false when there is none.
bool MemberCursor::fillChain() {
  chain_.clear();
  shown_ = 0;
  for (; bucket_ < hx::kBucketCount && chain_.empty(); ++bucket_) {
    hx::Member* member = table_.buckets[bucket_];
    for (; member != nullptr; member = member->next) {
      if (member->nameLength > 0) {
        chain_.push_back(member);
      } else {
        ++hidden_;
      }
    }
  }
  if (chain_.size() > 1) dropRepeated();
  return !chain_.empty();
}

// The file chooses the names, and could have them all lead to one place; what it can't know is
// where this is.
std::uint64_t MemberCursor::keyedHash(std::u32string_view name) const {
  const std::uint64_t key = reinterpret_cast<std::uintptr_t>(this) * 0x9e3779b97f4a7c15u | 1;
  std::uint64_t hash = key + name.size();
  for (const char32_t character : name) {
    hash = (hash ^ character) * key;
    hash ^= hash >> 32;
  }
  return hash;
}

// Equal names lie in one chain.
void MemberCursor::dropRepeated() {
  byHash_.assign(std::bit_ceil(2 * chain_.size()), nullptr);
  const std::size_t mask = byHash_.size() - 1;
  const auto isRepeated = [&](const hx::Member* member) {
    const std::u32string_view name = nameOf(*member);
    std::size_t place = keyedHash(name) & mask;
    for (; byHash_[place] != nullptr; place = (place + 1) & mask) {
      if (nameOf(*byHash_[place]) == name) return true;
    }
    byHash_[place] = member;
    return false;
  };
  hidden_ += static_cast<std::int64_t>(std::erase_if(chain_, isRepeated));
}

}  // namespace hxcrate
