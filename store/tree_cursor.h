#pragma once

#include "store/member_table.h"

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

  // To the next member of the same store.
  void advance() { member = nextMember(store->members, member); }

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
