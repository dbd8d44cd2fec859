// What lies in a store: listings of any depth, and single members.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <ranges>
#include <string>

#include "hxcrate/error.hpp"
#include "hxcrate/shown_iterator.hpp"

namespace hx {
struct Store;
}

namespace hxcrate {

class ListingWalk;
class Opening;

enum class MemberKind { store, item };

// What a member is, without opening it.
struct MemberStatus {
  MemberKind kind;
  std::int64_t size;   // of an item, bytes, or what it has by now while it is written; else 0
  std::int64_t pages;  // that hold them
  std::int64_t place;  // of its first record in the file or blob; 0: it has none yet
};

struct ListOptions {
  bool isRecursive = true;  // nested stores with all that is in them, each behind its store
  bool isSorted = false;  // the members of each store by the bytes of their names, not as they lie
  bool hasSizes = false;  // of items
};

struct ListedMember {
  std::string path;  // inside the store that is listed
  MemberKind kind;
  std::int64_t size;  // of an item, bytes, where sizes were asked for; else -1
};

bool showNext(ListingWalk& walk, ListedMember& listed);  // false at the end

// The members of a store, and of the stores in it. A range and a view of C++20 that can be gone
// through any number of times; it holds the store's file open as a MemberRange does. An iterator
// that asks for sizes throws where the records of an item are damaged.
class [[nodiscard]] Listing : public std::ranges::view_base {
 public:
  using Iterator = ShownIterator<ListedMember, ListingWalk>;

  Listing() noexcept = default;  // of nothing, as what was moved from: begin() throws closed

  Iterator begin() const;
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  friend class Store;
  Listing(std::shared_ptr<Opening> opening, hx::Store* store, ListOptions options)
      : opening_(std::move(opening)), store_(store), options_(options) {}

  std::shared_ptr<Opening> opening_;
  hx::Store* store_ = nullptr;
  ListOptions options_;
};

}  // namespace hxcrate
