#include "bench/targets.h"

#include <cstdio>

namespace bench {

namespace {

struct Mark {
  const char* metric;
  const char* engine;
};

// With a rival: at most `limit` times as long as it for the same amount. Without: a rate of at
// least `limit`, or a time of at most as much, in the metric's unit.
struct Target {
  Mark ours;
  Mark rival;
  double limit;
};

constexpr Mark kNone{nullptr, nullptr};

constexpr Target kTargets[] = {
    {{"a-off", "hxcrate"}, {"a-off", "plain"}, 1.35},
    {{"a-on", "hxcrate"}, {"a-on", "plain"}, 1.15},
    {{"b", "hxcrate"}, {"b", "plain"}, 1.15},
    {{"b", "hxcrate-256k"}, {"b", "plain"}, 1.15},
    {{"b", "hxcrate-mapped"}, {"b", "lmdb"}, 1},
    {{"b", "hxcrate-mapped-256k"}, {"b", "lmdb"}, 1},
    {{"c-100000-off", "hxcrate"}, {"c-100000-off", "sqlite"}, 1},
    {{"c-100000-off", "hxcrate-256"}, kNone, 1.2},
    {{"d-first", "hxcrate"}, kNone, 150},
    {{"d-cached", "hxcrate"}, kNone, 60},
    {{"e", "hxcrate"}, {"e", "sqlite"}, 1},
    {{"e", "hxcrate-256"}, {"e", "sqlite"}, 1},
    {{"e", "hxcrate-mapped"}, {"e", "lmdb"}, 1},
    {{"e", "hxcrate-mapped-256"}, {"e", "lmdb"}, 1},
    {{"f", "hxcrate-slot"}, {"f", "sqlite"}, 1},
    {{"f", "hxcrate"}, kNone, 15},
    {{"g-fresh-off", "hxcrate"}, kNone, 25},
    {{"g-cached-off", "hxcrate"}, kNone, 8},
    {{"h-made", "hxcrate"}, {"h-made", "plain"}, 1.5},
    {{"h-read", "hxcrate"}, {"h-read", "plain"}, 1.3},
    {{"h-read", "hxcrate-64k"}, {"h-read", "plain"}, 1.3},
    {{"i-two", "hxcrate"}, {"i-one", "hxcrate"}, 1 / 1.5},
    {{"i-two", "hxcrate-sessions"}, {"i-one", "hxcrate-sessions"}, 1 / 1.5},
    {{"i-two", "hxcrate-mapped-256k"}, {"i-one", "hxcrate-mapped-256k"}, 1 / 1.5},
    {{"k-made-off", "hxcrate"}, kNone, 3.5},
    {{"k-walked-off", "hxcrate"}, kNone, 3},
    {{"k-made-off", "hxcrate-256"}, {"k-made-off", "sqlite"}, 1},
    {{"k-walked-off", "hxcrate-256"}, {"k-walked-off", "sqlite"}, 1},
    {{"l-pack", "hxcrate"}, {"l-pack", "sqlite"}, 1},
};

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}

std::string describe(const Mark& mark) {
  return std::string(mark.metric) + " " + mark.engine;
}

std::optional<Verdict> judgeRace(const Target& target, const Results& results, const Row& row,
                                 const Cell& cell) {
  const Row* otherRow = findRow(results, target.rival.metric);
  if (otherRow == nullptr) return {};
  const Cell* other = findCell(results, *otherRow, target.rival.engine);
  if (other == nullptr) return {};
  const double ratio = timesAsLong(row, cell, *otherRow, *other);
  return Verdict{describe(target.ours) + " <= " + format("%.2f", target.limit) + " x the time of " +
                     describe(target.rival),
                 format("%.2f x", ratio), ratio <= target.limit};
}

Verdict judgeFigure(const Target& target, const Row& row, const Cell& cell) {
  const double figure = figuresOf(row.metric, cell).median;
  const Unit& unit = row.metric.unit;
  return {describe(target.ours) + (unit.isRate ? " >= " : " <= ") + format("%.4g ", target.limit) +
              unit.name,
          format("%.4g ", figure) + unit.name,
          unit.isRate ? figure >= target.limit : figure <= target.limit};
}

std::optional<Verdict> judgeOne(const Target& target, const Results& results) {
  const Row* row = findRow(results, target.ours.metric);
  if (row == nullptr) return {};
  const Cell* cell = findCell(results, *row, target.ours.engine);
  if (cell == nullptr) return {};
  if (target.rival.metric != nullptr) return judgeRace(target, results, *row, *cell);
  return judgeFigure(target, *row, *cell);
}

}  // namespace

std::vector<Verdict> judge(const Results& results) {
  std::vector<Verdict> verdicts;
  if (results.quick) return verdicts;
  for (const Target& target : kTargets)
    if (const auto verdict = judgeOne(target, results)) verdicts.push_back(*verdict);
  return verdicts;
}

}  // namespace bench
