#include "bench/results.h"

#include <algorithm>

namespace bench {

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

Spread figuresOf(const Metric& metric, const Cell& cell) {
  std::vector<double> figures;
  for (const double seconds : cell.seconds)
    figures.push_back(metric.figure(seconds));
  return spreadOf(std::move(figures));
}

double timesAsLong(const Row& row, const Cell& cell, const Row& otherRow, const Cell& other) {
  std::vector<double> ratios;
  const std::size_t rounds = std::min(cell.seconds.size(), other.seconds.size());
  for (std::size_t i = 0; i < rounds; ++i)
    ratios.push_back(cell.seconds[i] / other.seconds[i]);
  return spreadOf(std::move(ratios)).median / row.metric.amount * otherRow.metric.amount;
}

const Row* findRow(const Results& results, const std::string& metricId) {
  for (const Row& row : results.rows)
    if (row.metric.id == metricId) return &row;
  return nullptr;
}

const Cell* findCell(const Results& results, const Row& row, const std::string& engine) {
  for (std::size_t i = 0; i < results.engines.size(); ++i)
    if (results.engines[i].name == engine && !row.cells[i].seconds.empty()) return &row.cells[i];
  return nullptr;
}

}  // namespace bench
