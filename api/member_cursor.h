// The members of a store, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "hxcrate/store.hpp"
#include "opening.h"
#include "records/records.h"

namespace hxcrate {

// Walks the table that the store had when the cursor was made, in its order and under no lock: a
// new member is put before the others of its chain, and no member leaves its table, changes its
// name or is followed by another one while the store is open, which the cursor sees to. That is one
// visit a member, where getNextMember takes the lock and searches for the last name. Shows the same
// members as that: of several of one name the first, and none without a name. Used by one thread.
class MemberCursor {
 public:
  // Throws notLocked. Like next, throws when what it would show is not kept.
  MemberCursor(std::shared_ptr<Opening> opening, hx::Store* store);

  // Fills in the next member; false at the end.
  bool next(Member& member);
  // Its name and its record, which stays where it is; null at the end.
  hx::Member* next(std::string& name);
  // How many it has passed over so far.
  std::int64_t hidden() const noexcept { return hidden_; }

 private:
  bool fillChain();
  void dropRepeated();
  std::uint64_t keyedHash(std::u32string_view name) const;

  std::shared_ptr<Opening> opening_;  // keeps the members where they are
  hx::Store* store_;
  hx::MemberTable table_;
  std::int32_t bucket_ = 0;         // whose chain is next
  std::vector<hx::Member*> chain_;  // what is shown of the one before
  std::size_t shown_ = 0;           // of chain_
  std::int64_t hidden_ = 0;
  std::vector<const hx::Member*> byHash_;  // for dropRepeated
};

}  // namespace hxcrate
