// All engines that are measured.
#pragma once

#include <memory>
#include <vector>

#include "bench/engine.h"

namespace bench {

using EnginePtr = std::unique_ptr<Engine>;

// This store, in the settings that its users choose from; the plain one first.
std::vector<EnginePtr> makeHxcrate();
EnginePtr makeHxcrateSlot();
EnginePtr makePlainFile();
EnginePtr makePlainFiles();
EnginePtr makeSqlite();
EnginePtr makeLmdb();
EnginePtr makeHdf5();
EnginePtr makeGsf();
EnginePtr makeZip();
EnginePtr makeTkrzw();
EnginePtr makeCdb();

}  // namespace bench
