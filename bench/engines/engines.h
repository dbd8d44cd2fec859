// All engines that are measured.
#pragma once

#include <memory>
#include <vector>

#include "bench/engine.h"

namespace bench {

using EnginePtr = std::unique_ptr<Engine>;

EnginePtr makeHxcrate(std::int32_t pageSize);
EnginePtr makeHxcrateMapped();
EnginePtr makeHxcrateSlot();
EnginePtr makePlainFile();
EnginePtr makePlainFiles();
EnginePtr makeSqlite();
EnginePtr makeLmdb();
EnginePtr makeHdf5();
EnginePtr makeGsf();
EnginePtr makeZip();

}  // namespace bench
