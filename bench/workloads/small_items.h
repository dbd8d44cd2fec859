// Making and checking a store of small items.
#pragma once

#include "bench/run.h"
#include "bench/source.h"

namespace bench {

// Throws Unsupported when so many items would take the engine minutes.
void requireMeasurable(const Engine& engine, std::size_t count);

void createAll(Session& session, const std::string& path, const SmallItems& items);

// Throws unless the store holds these items with these bytes and no others.
void verifyAll(Engine& engine, const std::string& path, const SmallItems& items);

// A store of all `items` that is kept, and was verified when it was made.
std::string keptItems(const Run& run, const std::string& purpose, const SmallItems& items);

// Reads the items of these numbers by their names; throws when one is short.
void getAll(Reading& reading, const SmallItems& items, const std::vector<std::uint32_t>& order);

}  // namespace bench
