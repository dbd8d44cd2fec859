// Every state in which power cuts can leave a simulated disk.
#pragma once

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/simulated_disk.h"

namespace hxtest {

// Cuts the power before every operation of a disk that changes it. Each state that this can leave
// is looked at, and must be one of those that are allowed at the time. Few unsynced changes are
// combined in every way, of more a sample is; some of the states that are to be rolled back are cut
// again then. Longer searches combine more.
class CrashExplorer {
 public:
  // What a disk holds, which is opened for that and may change by it.
  using Look = std::function<std::string(SimulatedDisk& disk)>;

  explicit CrashExplorer(Look look, bool isLong = false)
      : look_(std::move(look)), isLong_(isLong) {}

  // Watches the disk from now on.
  void watch(SimulatedDisk& disk) {
    disk.watch = [this, &disk](const DiskStep& done) {
      if (done.changesDisk()) cutPower(disk, true);
    };
  }

  // What may be found from now on.
  void allow(std::set<std::string> allowed) { allowed_ = std::move(allowed); }

  // Cuts the power when nothing is under way.
  void cutPower(const SimulatedDisk& disk) { cutPower(disk, true); }

  uint64_t states = 0;
  uint64_t statesOfRollbacks = 0;  // of them, left by a second cut
  uint64_t cuts = 0;               // operations of the disk before which the power was cut
  std::string firstFailure;

 private:
  void cutPower(const SimulatedDisk& disk, bool isFirst) {
    ++cuts;
    const size_t count = disk.pending().size();
    const bool isExhaustive = count <= (isFirst ? isLong_ ? 12u : 9u : 3u);
    const uint32_t samples = isFirst && isLong_ ? 100 : 8;
    std::vector<Fate> fates(count);
    for (uint32_t i = 0; i < (isExhaustive ? 2u << count : samples); ++i) {
      const uint64_t odds = random_() % 9 + 1;
      for (size_t k = 0; k < count; ++k) {
        const bool isKept = isExhaustive ? (i >> k & 1) != 0 : random_() % 9 < odds;
        const bool isTorn = isExhaustive ? i >> count != 0 : random_() % 2 != 0;
        fates[k] = isKept ? Fate::kKept : isTorn ? Fate::kTorn : Fate::kDropped;
      }
      examine(disk.afterPowerCut(fates, random_), isFirst);
    }
  }

  void examine(const DiskImage& image, bool isFirst) {
    ++states;
    statesOfRollbacks += !isFirst;
    SimulatedDisk disk(image);
    const bool isCutAgain = isFirst && image.has("/s-journal") && ++journals_ % 25 == 0;
    disk.watch = [&](const DiskStep& done) {
      if (isCutAgain && done.changesDisk()) cutPower(disk, false);
    };
    const std::string found = look_(disk);
    if (isCutAgain) cutPower(disk, false);
    if (allowed_.count(found) != 0 || !firstFailure.empty()) return;
    firstFailure = "cut " + std::to_string(cuts) + ": found " + found.substr(0, 200);
  }

  const Look look_;
  const bool isLong_;
  std::mt19937 random_{7};
  std::set<std::string> allowed_;
  uint64_t journals_ = 0;
};

}  // namespace hxtest
