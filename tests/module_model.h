// The model: what every store must hold, learned from what was done and acknowledged. It looks into
// no record of the module.
#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/fake_host.h"

namespace hx::fake {

using Sizes = std::map<std::string, int32_t>;  // of items by their paths; "n/." is a store

struct Model {
  const FakeHost& host;
  std::map<std::string, Sizes> now = {};    // of every store that is cached or open
  std::map<std::string, Sizes> saved = {};  // of every file and blob
  std::set<std::string> unknown = {};       // files with contents that the model does not know
  std::set<std::string> stale = {};         // whose file is not as the tree in memory says

  // A top-level store was opened, or was to be; whether it was cached before and is now.
  void noteOpening(const std::string& name, uint32_t flags, bool wasCached, bool isCached,
                   bool succeeded);
  void noteUpdate(const std::string& name);  // of a file; it has ended
  void noteDrop(const std::string& name, bool withFile);
  void noteDamage(const std::string& file);

  // The bytes of an item follow from its name and their place, so every byte that is read can be
  // compared.
  static char byteAt(const std::string& item, int64_t place);
};

}  // namespace hx::fake
