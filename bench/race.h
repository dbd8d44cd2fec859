// Runs every case with every engine, round by round.
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "bench/cases.h"
#include "bench/results.h"

namespace bench {

struct RaceSettings {
  int rounds = 5;
  // Of measured time for one engine at one case: who needs more has fewer rounds.
  double secondsPerCell = 12;
  std::chrono::seconds patience{120};  // for one turn, with all that is not measured
  std::filesystem::path directory;     // where files are made; empty at first
};

// Every round lets all engines take their turn, each round in another order. The first round
// compares every byte. Progress goes to standard error.
Results race(const std::vector<Case>& cases, const std::vector<std::unique_ptr<Engine>>& engines,
             const RaceSettings& settings);

}  // namespace bench
