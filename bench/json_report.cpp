#include <nlohmann/json.hpp>

#include "bench/report.h"
#include "bench/targets.h"

namespace bench {

namespace {

using Json = nlohmann::ordered_json;

Json describeCell(const Results& results, const Row& row, std::size_t engine) {
  const Cell& cell = row.cells[engine];
  Json json{{"engine", results.engines[engine].name}};
  if (!cell.note.empty()) json[cell.failed ? "failure" : "note"] = cell.note;
  if (cell.seconds.empty()) return json;
  const Spread spread = figuresOf(row.metric, cell);
  json["median"] = spread.median;
  json["min"] = spread.least;
  json["max"] = spread.most;
  if (const Cell* plain = findCell(results, row, "plain"))
    json["times_plain"] = timesAsLong(row, cell, row, *plain);
  json["seconds"] = cell.seconds;
  return json;
}

Json describeRow(const Results& results, const Row& row) {
  Json json{{"id", row.metric.id},          {"title", row.metric.title},
            {"unit", row.metric.unit.name}, {"more_is_better", row.metric.unit.isRate},
            {"amount", row.metric.amount},  {"engines", Json::array()}};
  for (std::size_t i = 0; i < row.cells.size(); ++i) {
    if (row.cells[i].seconds.empty() && row.cells[i].note.empty()) continue;
    json["engines"].push_back(describeCell(results, row, i));
  }
  return json;
}

}  // namespace

std::string jsonReport(const Results& results) {
  Json json{{"rounds", results.rounds}, {"took_seconds", results.seconds}};
  for (const EngineInfo& engine : results.engines)
    json["engines"].push_back({{"name", engine.name}, {"settings", engine.settings}});
  for (const Row& row : results.rows)
    json["rows"].push_back(describeRow(results, row));
  for (const Verdict& verdict : judge(results)) {
    json["targets"].push_back(
        {{"wanted", verdict.wanted}, {"found", verdict.found}, {"met", verdict.met}});
  }
  return json.dump(1) + "\n";
}

}  // namespace bench
