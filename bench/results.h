// What was measured.
#pragma once

#include <string>
#include <vector>

#include "bench/cases.h"

namespace bench {

// One engine's times for one metric, a round each.
struct Cell {
  std::vector<double> seconds;
  std::string note;     // why there are none, or fewer than asked for
  bool failed = false;  // the note is of a failure, not of something that the engine can't do
};

struct Row {
  char workload;
  Metric metric;
  std::vector<Cell> cells;  // as many as engines; an empty one without a note took no part
};

struct Results {
  std::vector<EngineInfo> engines;
  std::vector<Row> rows;
  int rounds = 0;      // asked for
  bool quick = false;  // small sizes, from which nothing follows
  double seconds = 0;  // all of it took
};

// All of it, for report.py: the times of all rounds in seconds, and how a time becomes a figure.
std::string toJson(const Results& results);

}  // namespace bench
