#pragma once

#include "records/export.h"
#include "records/name.h"
#include "records/records.h"

namespace hx {

extern "C" {

// Opens, shares or creates a store (OpenFlag): without a parent the top-level store of the file at
// the path `name`, with one the nested store at the path below it, whose components are separated
// by "/" and exist but for the last. Returns the store, which its opener closes, or null with a
// negative status. A store whose directory could be read only in part comes with kUnreadable or
// kNoMemory as status.
HX_EXPORT Store* hxcrateOpenStore(ExtensionInstance* instance, Store* parent, const char32_t* name,
                                  int32_t length, uint32_t flags, int32_t* status);

}  // extern "C"

// Opens the stores along a path for the time of one operation on what its last component names.
// Every store stays open until the walk ends, since each is reached through the one before.
class PathWalk {
 public:
  // Starts in `start`, or at the instance's top-level stores when that is null.
  PathWalk(ExtensionInstance* instance, Store* start) : instance_(instance), start_(start) {}
  ~PathWalk();
  PathWalk(const PathWalk&) = delete;
  PathWalk& operator=(const PathWalk&) = delete;

  // Opens all components but the last. Not to be called with the lock held. kOk, or why a component
  // did not open.
  int32_t walk(Name path);

  // After a successful walk: where the last component is to be looked up, and that component.
  Store* container() const { return innermost_ == nullptr ? start_ : innermost_; }
  Name lastName() const { return lastName_; }

 private:
  ExtensionInstance* instance_;
  Store* start_;
  Store* innermost_ = nullptr;  // the last store opened by the walk
  Name lastName_ = {};
};

}  // namespace hx
