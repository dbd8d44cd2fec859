#include "bench/race.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

namespace bench {

namespace {

using Engines = std::vector<std::unique_ptr<Engine>>;

constexpr int kLeastRounds = 3;  // unless one takes twice what all should

// One line that is written over on a terminal, and a line a case elsewhere.
class Progress {
 public:
  explicit Progress(std::size_t cases) : cases_(cases) {}
  ~Progress() {
    if (isTerminal_) fmt::print(stderr, "\r\033[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void startCase(const Case& one) {
    ++number_;
    title_ = fmt::format("{} {}", one.workload, one.metrics[0].title);
    if (!isTerminal_) fmt::print(stderr, "{}\n", head());
  }
  void startTurn(int round, const std::string& engine) const {
    if (isTerminal_) fmt::print(stderr, "\r\033[K{}: round {}, {}", head(), round + 1, engine);
  }

 private:
  std::string head() const { return fmt::format("[{}/{}] {}", number_, cases_, title_); }

  bool isTerminal_ = ::isatty(STDERR_FILENO) == 1;
  std::size_t cases_;
  std::size_t number_ = 0;
  std::string title_;
};

// An engine's way through the rounds of one case.
struct Racer {
  std::size_t engine;       // its index
  int rounds;               // still wanted
  std::vector<Cell> cells;  // as many as metrics
};

void takeOver(Racer& racer, const Outcome& outcome) {
  for (std::size_t i = 0; i < racer.cells.size(); ++i) {
    if (i < outcome.seconds.size() && outcome.failure.empty()) {
      racer.cells[i].seconds.push_back(outcome.seconds[i]);
      continue;
    }
    racer.cells[i].failed = !outcome.failure.empty();
    racer.cells[i].note = racer.cells[i].failed ? outcome.failure : outcome.unsupported;
  }
  if (!outcome.failure.empty() || outcome.seconds.empty()) racer.rounds = 0;
}

void limitRounds(Racer& racer, const Outcome& outcome, const RaceSettings& settings) {
  const double took = std::accumulate(outcome.seconds.begin(), outcome.seconds.end(), 0.0);
  if (took * settings.rounds <= settings.secondsPerCell) return;
  const int least = took <= settings.secondsPerCell * 2 ? kLeastRounds : 1;
  const int affordable = std::max(least, static_cast<int>(settings.secondsPerCell / took));
  if (affordable >= racer.rounds) return;
  racer.rounds = affordable;
  for (Cell& cell : racer.cells)
    if (cell.note.empty()) cell.note = "slow: fewer rounds";
}

void runRounds(const Case& one, const Engines& engines, std::vector<Racer>& racers,
               const RaceSettings& settings, const Progress& progress) {
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t turn = 0; turn < racers.size(); ++turn) {
      Racer& racer = racers[(turn + static_cast<std::size_t>(round)) % racers.size()];
      if (round >= racer.rounds) continue;
      Engine& engine = *engines[racer.engine];
      progress.startTurn(round, engine.info().name);
      const Place place{settings.directory / "fresh", settings.directory / "kept", round == 0};
      const Outcome outcome = runInChild(engine, place, one.body, settings.patience);
      takeOver(racer, outcome);
      if (round == 0) limitRounds(racer, outcome, settings);
    }
  }
}

void appendRows(const Case& one, const std::vector<Racer>& racers, Results& results) {
  for (std::size_t i = 0; i < one.metrics.size(); ++i) {
    Row row{one.workload, one.metrics[i], std::vector<Cell>(results.engines.size())};
    for (const Racer& racer : racers)
      row.cells[racer.engine] = racer.cells[i];
    results.rows.push_back(std::move(row));
  }
}

void runCase(const Case& one, const Engines& engines, const RaceSettings& settings,
             Progress& progress, Results& results) {
  progress.startCase(one);
  std::vector<Racer> racers;
  for (std::size_t i = 0; i < engines.size(); ++i)
    if (engines[i]->takesPart(one.workload))
      racers.push_back({i, settings.rounds, std::vector<Cell>(one.metrics.size())});
  if (racers.empty()) return;
  runRounds(one, engines, racers, settings, progress);
  appendRows(one, racers, results);
}

}  // namespace

Results race(const std::vector<Case>& cases, const Engines& engines, const RaceSettings& settings) {
  Results results;
  results.rounds = settings.rounds;
  for (const auto& engine : engines)
    results.engines.push_back(engine->info());
  std::filesystem::create_directory(settings.directory / "kept");
  const auto began = std::chrono::steady_clock::now();
  Progress progress(cases.size());
  for (const bool cold : {false, true})
    for (const Case& one : cases)
      if (one.leavesMemoryCold == cold) runCase(one, engines, settings, progress, results);
  std::stable_sort(results.rows.begin(), results.rows.end(), [](const Row& left, const Row& right) {
    return left.workload < right.workload;
  });
  results.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  return results;
}

}  // namespace bench
