// A tree of stores, walked depth first by the bytes of the names. Depth costs heap, not stack.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hxcrate/crate.hpp"
#include "selection.h"
#include "tool/files/write_limits.h"
#include "tool/report/progress.h"
#include "tool/report/report.h"

namespace tool {

// By the bytes of the names.
std::vector<hxcrate::Member> listSorted(const hxcrate::Store& store);
// Lists the members of a store that are to be walked, in some order.
using ListMembers = std::function<std::vector<hxcrate::Member>(const hxcrate::Store&)>;

class StoreWalk {
 public:
  enum class Event { item, store, leave, end };

  // `start` is any store; the walk ends when it is through with it. With a selection, which
  // outlives it, it gives only what is meant, and the stores on the way to that.
  explicit StoreWalk(hxcrate::Store start, const Selection* selection = nullptr,
                     ListMembers list = listSorted);

  // Goes on to the next member, or out of a store that was entered and is done.
  Event next();

  // The member that `next` gave last, and the store that it is in.
  const std::string& name() const { return levels_.back().members[levels_.back().next - 1].name; }
  const hxcrate::Store& container() const { return levels_.back().store; }

  // Where that member lies in the store file. Kept once for all levels: a path for each of them
  // would take as much memory as the square of the depth.
  const std::string& place() const { return place_; }
  std::int64_t itemSize() const { return container().stat(name()).size; }
  // Whether it is the last one in its store.
  bool isLast() const { return levels_.back().next == levels_.back().members.size(); }

  // Into the store that `next` gave last. One that is not entered is passed over.
  void enter();
  // Out of the store that was entered just now; the walk goes on behind it.
  void abandon() { levels_.pop_back(); }

 private:
  struct Level {
    hxcrate::Store store;
    std::vector<hxcrate::Member> members;
    std::size_t placeLength;  // of the store's
    std::size_t next = 0;
  };

  // A store that may hold what is meant. They are counted in the order of the walk.
  struct Way {
    bool leads = false;      // it does
    std::size_t behind = 0;  // the first one that does not lie in it
  };

  void push(hxcrate::Store store);
  Event step();
  void findWays();
  void markWays(const std::vector<std::size_t>& open);
  bool isWanted(Event event);

  std::vector<Level> levels_;
  std::string place_;
  const Selection* selection_;
  ListMembers list_;
  std::vector<Way> ways_;
  std::optional<std::size_t> way_;  // the member that `next` gave last is one
  std::size_t nextWay_ = 0;
};

// What `open` opens; nothing when there is no such member, or one of the other kind.
template <typename Open>
auto openIfThere(Open open) -> std::optional<decltype(open())> {
  try {
    return open();
  } catch (const hxcrate::Error& error) {
    using hxcrate::Errc;
    const Errc code = error.errc();
    if (code != Errc::notFound && code != Errc::isAStore && code != Errc::isAnItem) throw;
    return std::nullopt;
  }
}

// `path` inside `store` as a store, which is `store` itself for the empty path; nothing, and
// `store` as it was, when it is an item's. Throws hxcrate::Error when it is nobody's.
std::optional<hxcrate::Store> openIfStore(hxcrate::Store& store, const std::string& path);

// `path` in `store` as an item; nothing when it is a store's. Throws hxcrate::Error when it is
// nobody's.
std::optional<hxcrate::View> openIfItem(const hxcrate::Store& store, const std::string& path);

// What `path` leads to; nothing when there is nothing.
std::optional<hxcrate::MemberKind> kindOf(const hxcrate::Store& store, const std::string& path);

// Into the store that `next` gave last, unless it can't be read: that is told on standard error and
// changes `outcome`.
bool enterOrNote(StoreWalk& walk, ExitCode& outcome);

// The sizes of items of one file.
class ItemSizes {
 public:
  // Each item is asked for so often at most.
  explicit ItemSizes(std::int64_t times = 1) : times_(times) {}

  // Nothing when it can't be read, which is noted as above, and behind items that share pages.
  std::optional<std::int64_t> sizeOrNote(const hxcrate::Store& store, const std::string& path,
                                         ExitCode& outcome);
  // The same in silence.
  std::optional<std::int64_t> sizeIfReadable(const hxcrate::Store& store, const std::string& path);

 private:
  std::int64_t sizeOf(const hxcrate::Store& store, const std::string& path);

  const OwnBytes limit_;
  const std::int64_t times_;
  std::int64_t bytes_ = 0;
  bool isOver_ = false;
};

// Tells a progress that is shown how many items of the store file `path` are meant, and how many
// bytes they have.
void expectItems(Progress& progress, hxcrate::Session& session, const std::string& path,
                 const Selection& selection);

// The store file `path`, read only, whatever can be read of it. What can't is told on standard
// error and changes `outcome`.
hxcrate::Store openWhatThereIs(hxcrate::Session& session, const std::string& path,
                               ExitCode& outcome);

// Throws hxcrate::Error unless all `paths` are there. What can't be opened is there for sure, and
// told of when its turn comes.
void requireThere(const hxcrate::Store& store, const std::vector<std::string>& paths);

}  // namespace tool
