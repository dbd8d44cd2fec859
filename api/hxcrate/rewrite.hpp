// What a store file becomes when it is written anew.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "hxcrate/listing.hpp"

namespace hxcrate {

struct RewriteOptions {
  // Whether a member stays, told with its path and kind; with a store goes all that is in it.
  // Nothing: all of them stay.
  std::function<bool(const ListedMember&)> keeps = {};
  // What a member that stays is called from now on in its store, which may be its old name.
  // Nothing: all keep their names.
  std::function<std::string(const ListedMember&)> rename = {};
  std::int32_t pageSize = 0;                               // bytes; 0: what it is
  std::optional<std::chrono::milliseconds> lockWait = {};  // nothing: the session's
};

}  // namespace hxcrate
