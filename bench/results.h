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

struct Spread {
  double median;
  double least;
  double most;
};

// Of at least one value.
Spread spreadOf(std::vector<double> values);

// The figures of a cell that has some.
Spread figuresOf(const Metric& metric, const Cell& cell);

// How many times as long as `other` the cell took for the same amount: the median of the ratios of
// equal rounds. Both have at least one.
double timesAsLong(const Row& row, const Cell& cell, const Row& otherRow, const Cell& other);

// Null when there is no such row or engine, or it has no figures.
const Row* findRow(const Results& results, const std::string& metricId);
const Cell* findCell(const Results& results, const Row& row, const std::string& engine);

}  // namespace bench
