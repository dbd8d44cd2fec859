#include <cmath>
#include <cstdio>

#include "bench/report.h"
#include "bench/targets.h"

namespace bench {

namespace {

std::string pad(const std::string& text, std::size_t width) {
  return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}
std::string padLeft(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string lineOf(const Results& results, const Row& row, std::size_t engine) {
  const Cell& cell = row.cells[engine];
  std::string line = "  " + pad(results.engines[engine].name, 15);
  if (cell.seconds.empty()) return line + "   " + (cell.failed ? "FAILED: " : "") + cell.note;
  const Spread spread = figuresOf(row.metric, cell);
  for (const double figure : {spread.median, spread.least, spread.most})
    line += padLeft(formatFigure(figure), 10);
  line += padLeft(ratioToPlain(results, row, cell), 9);
  line += padLeft(std::to_string(cell.seconds.size()), 8);
  return cell.note.empty() ? line : line + "  " + (cell.failed ? "FAILED: " : "") + cell.note;
}

std::string blockOf(const Results& results, const Row& row) {
  std::string block = row.metric.id + ": " + row.metric.title + ", " + row.metric.unit.name +
                      (row.metric.unit.isRate ? ", more is better" : ", less is better") +
                      "\n                     median       min       max  x plain  rounds\n";
  for (std::size_t i = 0; i < row.cells.size(); ++i) {
    if (row.cells[i].seconds.empty() && row.cells[i].note.empty()) continue;
    block += lineOf(results, row, i) + "\n";
  }
  return block + "\n";
}

}  // namespace

std::string formatFigure(double figure) {
  const int digits = figure <= 0 ? 0 : 2 - static_cast<int>(std::floor(std::log10(figure)));
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", std::max(0, std::min(digits, 4)), figure);
  return text;
}

std::string ratioToPlain(const Results& results, const Row& row, const Cell& cell) {
  const Cell* plain = findCell(results, row, "plain");
  if (plain == nullptr) return "";
  return formatFigure(timesAsLong(row, cell, row, *plain));
}

std::string textReport(const Results& results) {
  std::string report;
  for (const Row& row : results.rows)
    report += blockOf(results, row);
  const std::vector<Verdict> verdicts = judge(results);
  if (!verdicts.empty()) report += "Targets\n";
  for (const Verdict& verdict : verdicts) {
    report += std::string(verdict.met ? "  met     " : "  MISSED  ") + pad(verdict.wanted, 64) +
              verdict.found + "\n";
  }
  char took[64];
  std::snprintf(took, sizeof took, "All of it took %.0f s.\n", results.seconds);
  return report + took;
}

}  // namespace bench
