// Making a store of large items.
#pragma once

#include "bench/run.h"
#include "bench/source.h"

namespace bench {

// What a large item of so many bytes is written in.
Pieces piecesOf(std::size_t bytes);

// A store with the item "item" of these pieces that is kept.
std::string keptItem(const Run& run, const std::string& purpose, const Pieces& pieces);

}  // namespace bench
