// A tree of stores, walked depth first by the bytes of the names. Depth costs heap, not stack.
#pragma once

#include <string>
#include <vector>

#include "hxcrate/crate.hpp"
#include "report.h"

namespace tool {

class StoreWalk {
 public:
  enum class Event { item, store, leave, end };

  // `start` is any store; the walk ends when it is through with it.
  explicit StoreWalk(hxcrate::Store start) { levels_.push_back(listStore(std::move(start))); }

  // Goes on to the next member, or out of a store that was entered and is done.
  Event next();

  // The member that `next` gave last, and the store that it is in.
  const std::string& name() const { return levels_.back().members[levels_.back().next - 1].name; }
  const hxcrate::Store& container() const { return levels_.back().store; }

  // Into the store that `next` gave last. One that is not entered is passed over.
  void enter() { levels_.push_back(listStore(container().openStore(name()))); }
  // Out of the store that was entered just now; the walk goes on behind it.
  void abandon() { levels_.pop_back(); }

 private:
  struct Level {
    hxcrate::Store store;
    std::vector<hxcrate::Member> members;
    std::size_t next = 0;
  };

  static Level listStore(hxcrate::Store store);

  std::vector<Level> levels_;
};

// The store file `path`, read only, whatever can be read of it. What can't is told on standard
// error and changes `outcome`.
hxcrate::Store openWhatThereIs(hxcrate::Session& session, const std::string& path,
                               ExitCode& outcome);

}  // namespace tool
