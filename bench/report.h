// The results for people and programs.
#pragma once

#include <string>

#include "bench/results.h"

namespace bench {

// A block for each metric, then what the targets say.
std::string textReport(const Results& results);

// All times of all rounds, in seconds.
std::string jsonReport(const Results& results);

// Three significant digits, without an exponent.
std::string formatFigure(double figure);

// "3.4 x" of the time of the plain calls, or empty without those.
std::string ratioToPlain(const Results& results, const Row& row, const Cell& cell);

}  // namespace bench
