// hx_bench: what this store costs beside what else there is.
#include <linux/magic.h>
#include <sys/vfs.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "bench/engines/engines.h"
#include "bench/race.h"
#include "bench/report.h"

namespace {

using namespace bench;

struct Options {
  RaceSettings race;
  std::vector<std::string> workloads;
  std::vector<std::string> engines;
  std::string directory = "build";
  std::string json;
  std::string svg;
  std::string document;
  bool quick = false;
};

std::vector<EnginePtr> allEngines() {
  std::vector<EnginePtr> engines;
  for (auto make :
       {makePlainFile, makePlainFiles, makeSqlite, makeLmdb, makeHdf5, makeGsf, makeZip})
    engines.push_back(make());
  for (EnginePtr& engine : makeHxcrate())
    engines.push_back(std::move(engine));
  engines.push_back(makeHxcrateSlot());
  return engines;
}

// A fresh directory for files, gone at the end.
class WorkDirectory {
 public:
  explicit WorkDirectory(const std::string& above) {
    std::filesystem::create_directories(above);
    std::string name = above + "/hx_bench-XXXXXX";
    require(::mkdtemp(name.data()) != nullptr, "can't make a directory in " + above);
    path_ = std::filesystem::absolute(name);
  }
  ~WorkDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  bool isInMemory() const {
    struct statfs status;
    return ::statfs(path_.c_str(), &status) == 0 && status.f_type == TMPFS_MAGIC;
  }

 private:
  std::filesystem::path path_;
};

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--rounds", options.race.rounds, "turns of each engine at each case")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  std::vector<std::string> letters;
  for (const WorkloadInfo& workload : workloads())
    letters.emplace_back(1, workload.letter);
  app.add_option("--workload", options.workloads, "only these workloads, by their letters")
      ->delimiter(',')
      ->check(CLI::IsMember(letters));
  std::vector<std::string> names;
  for (const EnginePtr& engine : allEngines())
    names.push_back(engine->info().name);
  app.add_option("--engine", options.engines, "only these engines")
      ->delimiter(',')
      ->check(CLI::IsMember(names));
  app.add_option("--dir", options.directory, "where a directory for files is made")
      ->capture_default_str();
  app.add_option("--json", options.json, "all times to this file");
  app.add_option("--svg", options.svg,
                 "bars of each workload as bench-LETTER.svg in this directory");
  app.add_option("--document", options.document,
                 "put the tables between this file's lines <!-- bench --> and <!-- /bench -->");
  app.add_flag("--quick", options.quick, "small sizes: does it work at all");
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  require(file.good(), "can't write " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  require(file.is_open(), "can't read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

constexpr std::string_view kTablesBegin = "<!-- bench -->\n";
constexpr std::string_view kTablesEnd = "<!-- /bench -->";

std::string replaceTables(std::string document, const std::string& tables) {
  const std::size_t begin = document.find(kTablesBegin);
  const std::size_t end = document.find(kTablesEnd);
  require(begin < end && end != std::string::npos, "the document has no place for the tables");
  const std::size_t behind = begin + kTablesBegin.size();
  return document.replace(behind, end - behind, tables);
}

void writeBars(const std::string& directory, const Results& results) {
  std::filesystem::create_directories(directory);
  for (const WorkloadInfo& workload : workloads()) {
    const bool measured =
        std::any_of(results.rows.begin(), results.rows.end(),
                    [&](const Row& row) { return row.workload == workload.letter; });
    if (measured)
      writeFile(directory + "/bench-" + workload.letter + ".svg", svgReport(results, workload));
  }
}

std::vector<EnginePtr> chooseEngines(const std::vector<std::string>& names) {
  std::vector<EnginePtr> chosen;
  for (EnginePtr& engine : allEngines())
    if (names.empty() || std::find(names.begin(), names.end(), engine->info().name) != names.end())
      chosen.push_back(std::move(engine));
  return chosen;
}

std::string chooseLetters(const std::vector<std::string>& letters) {
  std::string chosen;
  for (const WorkloadInfo& workload : workloads())
    if (letters.empty() ||
        std::find(letters.begin(), letters.end(), std::string(1, workload.letter)) != letters.end())
      chosen += workload.letter;
  return chosen;
}

bool anyFailed(const Results& results) {
  for (const Row& row : results.rows)
    for (const Cell& cell : row.cells)
      if (cell.failed) return true;
  return false;
}

int run(Options& options) {
  if (!options.document.empty()) replaceTables(readFile(options.document), "");  // fails early
  const WorkDirectory work(options.directory);
  if (work.isInMemory())
    std::fprintf(stderr, "hx_bench: %s lies in memory: nothing waits for a disk there\n",
                 options.directory.c_str());
  options.race.directory = work.path();
  const Scale scale = options.quick ? Scale::quick() : Scale();
  Results results = race(makeCases(scale, chooseLetters(options.workloads)),
                         chooseEngines(options.engines), options.race);
  results.quick = options.quick;
  std::fputs(textReport(results).c_str(), stdout);
  std::fflush(stdout);  // removing the files can take a while
  if (!options.json.empty()) writeFile(options.json, jsonReport(results));
  if (!options.svg.empty()) writeBars(options.svg, results);
  if (!options.document.empty())
    writeFile(options.document, replaceTables(readFile(options.document), markdownReport(results)));
  return anyFailed(results) ? 1 : 0;
}

}  // namespace

int main(int count, char** arguments) {
  CLI::App app("Measures this store beside plain system calls and other engines.");
  Options options;
  addOptions(app, options);
  CLI11_PARSE(app, count, arguments);
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "hx_bench: %s\n", error.what());
    return 1;
  }
}
