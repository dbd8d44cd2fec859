// The map of a store file as a picture.
#pragma once

#include <string>

#include "byte_map.h"

namespace tool {

// An SVG document that needs nothing else: the cells in rows, each split by what its bytes are and
// with a title that says so; the totals as a legend; the members that own most.
std::string drawMap(const InspectedStore& store, const ByteMap& map);

}  // namespace tool
