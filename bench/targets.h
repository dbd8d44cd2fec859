// What this store is meant to reach.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/results.h"

namespace bench {

struct Verdict {
  std::string wanted;  // "a-off hxcrate at most 1.35 x the time of plain"
  std::string found;   // "1.21 x"
  bool met;
};

// Of every target whose rows were measured; none of a quick run.
std::vector<Verdict> judge(const Results& results);

}  // namespace bench
