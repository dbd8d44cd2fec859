// Items whose names make them the journals of stores.
#pragma once

#include <string>

#include "directory.h"
#include "hxcrate/crate.hpp"

namespace tool {

// Whether the file `name` in an open directory would be taken for the journal of a store that lies
// beside it, or that is an item beside it in `container`: who opens that store next would undo with
// it what nobody has done. Throws hxcrate::Error.
bool isPlantedJournal(const hxcrate::Store& container, const std::string& name,
                      const Descriptor& directory);

// Throws a Failure, in which it is called `path`, when a new file `name` in an open directory would
// be taken for the journal of a store that lies beside it.
void refuseJournalName(const Descriptor& directory, const std::string& name,
                       const std::string& path);

}  // namespace tool
