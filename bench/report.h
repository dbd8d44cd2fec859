// The results for people and programs.
#pragma once

#include <string>

#include "bench/results.h"

namespace bench {

// A block for each metric, then what the targets say.
std::string textReport(const Results& results);

// All times of all rounds, in seconds.
std::string jsonReport(const Results& results);

// Tables for a document: what was measured where, then the targets.
std::string markdownReport(const Results& results);

// Bars of all metrics of one workload, readable on light and dark ground.
std::string svgReport(const Results& results, const WorkloadInfo& workload);

// Three significant digits, without an exponent.
std::string formatFigure(double figure);

// "3.4 x" of the time of the plain calls, or empty without those.
std::string ratioToPlain(const Results& results, const Row& row, const Cell& cell);

}  // namespace bench
