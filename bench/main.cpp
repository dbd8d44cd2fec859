// hx_bench: what this store costs beside what else there is.
#include <fmt/core.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <CLI/CLI.hpp>
#include <fstream>

#include "bench/engines/engines.h"
#include "bench/race.h"

namespace {

using namespace bench;

struct Options {
  RaceSettings race;
  std::vector<std::string> workloads;
  std::vector<std::string> engines;
  std::string directory = "build";
  std::string json = "build/bench/results.json";
  bool quick = false;
};

std::vector<EnginePtr> allEngines() {
  std::vector<EnginePtr> engines;
  for (auto make : {makePlainFile, makePlainFiles, makeSqlite, makeLmdb, makeTkrzw, makeCdb,
                    makeHdf5, makeGsf, makeZip})
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
  app.add_option("--json", options.json, "all times to this file, for report.py")
      ->capture_default_str();
  app.add_flag("--quick", options.quick, "small sizes: does it work at all");
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  require(file.good(), "can't write " + path);
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

void run(Options& options) {
  const WorkDirectory work(options.directory);
  if (work.isInMemory())
    fmt::print(stderr, "hx_bench: {} lies in memory: nothing waits for a disk there\n",
               options.directory);
  options.race.directory = work.path();
  const Scale scale = options.quick ? Scale::quick() : Scale();
  Results results = race(makeCases(scale, chooseLetters(options.workloads)),
                         chooseEngines(options.engines), options.race);
  results.quick = options.quick;
  writeFile(options.json, toJson(results));
}

}  // namespace

int main(int count, char** arguments) {
  CLI::App app("Measures this store beside plain system calls and other engines.");
  Options options;
  addOptions(app, options);
  CLI11_PARSE(app, count, arguments);
  try {
    run(options);
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "hx_bench: {}\n", error.what());
    return 1;
  }
}
