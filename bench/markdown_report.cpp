#include <algorithm>
#include <cmath>
#include <cstdio>

#include "bench/report.h"
#include "bench/targets.h"

namespace bench {

namespace {

// Numbers every reason once.
class Footnotes {
 public:
  std::string mark(const std::string& reason) {
    const auto known = std::find(reasons_.begin(), reasons_.end(), reason);
    const auto number = known - reasons_.begin() + 1;
    if (known == reasons_.end()) reasons_.push_back(reason);
    return "<sup>" + std::to_string(number) + "</sup>";
  }
  std::string list() const {
    std::string text;
    for (std::size_t i = 0; i < reasons_.size(); ++i)
      text += (i == 0 ? "" : "; ") + std::to_string(i + 1) + ": " + reasons_[i];
    return text.empty() ? "" : text + ".\n\n";
  }

 private:
  std::vector<std::string> reasons_;
};

std::vector<const Row*> rowsOf(const Results& results, char workload) {
  std::vector<const Row*> rows;
  for (const Row& row : results.rows)
    if (row.workload == workload) rows.push_back(&row);
  return rows;
}

std::string describeCell(const Results& results, const Row& row, const Cell& cell,
                         Footnotes& footnotes) {
  if (cell.seconds.empty()) return cell.note.empty() ? "" : footnotes.mark(cell.note);
  const Spread spread = figuresOf(row.metric, cell);
  std::string text = "**" + formatFigure(spread.median) + "**<br>" + formatFigure(spread.least) +
                     " to " + formatFigure(spread.most);
  const std::string ratio = ratioToPlain(results, row, cell);
  if (!ratio.empty()) text += "<br>" + ratio + " x";
  const auto rounds = static_cast<int>(cell.seconds.size());
  if (rounds < results.rounds)
    text += footnotes.mark(std::to_string(rounds) + (rounds == 1 ? " round" : " rounds"));
  return text;
}

bool tookPart(const std::vector<const Row*>& rows, std::size_t engine) {
  return std::any_of(rows.begin(), rows.end(), [&](const Row* row) {
    return !row->cells[engine].seconds.empty() || !row->cells[engine].note.empty();
  });
}

std::string tableOf(const Results& results, const std::vector<const Row*>& rows) {
  Footnotes footnotes;
  std::string head = "| |";
  std::string rule = "|---|";
  for (const Row* row : rows) {
    head += " " + row->metric.title + ", " + row->metric.unit.name + " |";
    rule += "--:|";
  }
  std::string table = head + "\n" + rule + "\n";
  for (std::size_t i = 0; i < results.engines.size(); ++i) {
    if (!tookPart(rows, i)) continue;
    table += "| " + results.engines[i].name + " |";
    for (const Row* row : rows)
      table += " " + describeCell(results, *row, row->cells[i], footnotes) + " |";
    table += "\n";
  }
  return table + "\n" + footnotes.list();
}

// Each row of the workload of growth beside the row of the same name with the fewest items.
std::string growthOf(const Results& results, const std::vector<const Row*>& rows) {
  std::string table = "| | ns | beside the fewest |\n|---|--:|--:|\n";
  for (const Row* row : rows) {
    const std::string stem = row->metric.id.substr(0, row->metric.id.rfind('-'));
    const Row* first = *std::find_if(rows.begin(), rows.end(), [&](const Row* other) {
      return other->metric.id.rfind(stem, 0) == 0;
    });
    for (std::size_t i = 0; i < row->cells.size(); ++i) {
      if (row->cells[i].seconds.empty() || first->cells[i].seconds.empty()) continue;
      const double figure = figuresOf(row->metric, row->cells[i]).median;
      const double least = figuresOf(first->metric, first->cells[i]).median;
      table += "| " + results.engines[i].name + ": " + row->metric.title + " | " +
               formatFigure(figure) + " | " + formatFigure(figure / least) + " x |\n";
    }
  }
  return table + "\n";
}

std::string targetsOf(const Results& results) {
  std::string table = "| wanted | found | |\n|---|--:|---|\n";
  for (const Verdict& verdict : judge(results))
    table += "| " + verdict.wanted + " | " + verdict.found + " | " +
             (verdict.met ? "met" : "**missed**") + " |\n";
  return "### Targets\n\n" + table + "\n";
}

std::string settingsOf(const Results& results) {
  std::string table = "### How each engine is set\n\n| | |\n|---|---|\n";
  for (const EngineInfo& engine : results.engines)
    table += "| " + engine.name + " | " + engine.settings + " |\n";
  return table + "\n";
}

}  // namespace

std::string markdownReport(const Results& results) {
  std::string text = "\n" + settingsOf(results);
  for (const WorkloadInfo& workload : workloads()) {
    const std::vector<const Row*> rows = rowsOf(results, workload.letter);
    if (rows.empty()) continue;
    const std::string letter(1, workload.letter);
    text += "### " + letter + ". " + workload.title + "\n\nMeasured: " + workload.covers +
            ".\n\n![Bars of workload " + letter + "](figures/bench-" + letter + ".svg)\n\n";
    text += tableOf(results, rows);
    if (workload.letter == 'n') text += growthOf(results, rows);
  }
  return text + targetsOf(results);
}

}  // namespace bench
