// One engine's turn at one case, in a process of its own.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/engine.h"

namespace bench {

// Where files are made, and what a turn does besides.
struct Place {
  std::filesystem::path fresh;  // a directory that is emptied before each turn
  std::filesystem::path kept;   // one that stays until the end
  bool verify;                  // compare every byte, outside the measured time
};

// How a turn went. An engine that gave up half-way has fewer figures than the case has metrics.
struct Outcome {
  std::vector<double> seconds;
  std::string unsupported;  // the engine's reason; empty: none
  std::string failure;      // likewise
};

class Run {
 public:
  Run(Engine& engine, const Place& place, std::function<void(double)> report)
      : engine_(engine), place_(place), report_(std::move(report)) {}

  Engine& engine() const { return engine_; }
  bool verifies() const { return place_.verify; }
  std::string freshPath(const std::string& name) const { return (place_.fresh / name).string(); }

  // A file that `make` makes once for all rounds, and for all engines that share their files.
  std::string keptFile(const std::string& purpose,
                       const std::function<void(const std::string& path)>& make) const {
    return kept(engine_.info().files + "-" + purpose, make);
  }
  // The same for all engines.
  std::string keptForAll(const std::string& purpose,
                         const std::function<void(const std::string& path)>& make) const {
    return kept("all-" + purpose, make);
  }

  // Times `work`, the case's next metric.
  void measure(const std::function<void()>& work) const;

 private:
  std::string kept(const std::string& name,
                   const std::function<void(const std::string& path)>& make) const;

  Engine& engine_;
  const Place& place_;
  std::function<void(double)> report_;
};

// Runs `body` in a child process, so that every engine starts from the same memory and a crash is
// that engine's alone. Ends it when it takes longer than `patience`.
Outcome runInChild(Engine& engine, const Place& place, const std::function<void(const Run&)>& body,
                   std::chrono::seconds patience);

}  // namespace bench
