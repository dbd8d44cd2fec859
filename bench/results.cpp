#include "bench/results.h"

#include <nlohmann/json.hpp>

namespace bench {

namespace {

using Json = nlohmann::ordered_json;

Json describeCell(const EngineInfo& engine, const Cell& cell) {
  Json json{{"engine", engine.name}, {"seconds", cell.seconds}};
  if (!cell.note.empty()) json[cell.failed ? "failure" : "note"] = cell.note;
  return json;
}

Json describeRow(const Results& results, const Row& row) {
  const Unit& unit = row.metric.unit;
  Json json{{"workload", std::string(1, row.workload)},
            {"id", row.metric.id},
            {"title", row.metric.title},
            {"unit", unit.name},
            {"factor", unit.factor},
            {"is_rate", unit.isRate},
            {"amount", row.metric.amount},
            {"engines", Json::array()}};
  for (std::size_t i = 0; i < row.cells.size(); ++i)
    if (!row.cells[i].seconds.empty() || !row.cells[i].note.empty())
      json["engines"].push_back(describeCell(results.engines[i], row.cells[i]));
  return json;
}

}  // namespace

std::string toJson(const Results& results) {
  Json json{{"rounds", results.rounds}, {"quick", results.quick}, {"seconds", results.seconds}};
  for (const WorkloadInfo& workload : workloads()) {
    json["workloads"].push_back({{"letter", std::string(1, workload.letter)},
                                 {"title", workload.title},
                                 {"covers", workload.covers}});
  }
  for (const EngineInfo& engine : results.engines)
    json["engines"].push_back({{"name", engine.name}, {"settings", engine.settings}});
  for (const Row& row : results.rows)
    json["rows"].push_back(describeRow(results, row));
  return json.dump(1) + "\n";
}

}  // namespace bench
