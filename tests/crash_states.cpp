#include "tests/crash_states.h"

#include <algorithm>
#include <random>
#include <set>

#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

// 512 bytes a page, and items enough for a file of several blocks of the journal.
void create(CrashSession& session, hx::Store* store) {
  store->setPageSize(store, 512);
  session.append(store, "first", makeBytes(100, 97));
  session.append(store, "empty", "");
  session.append(store, "nested/inner", makeBytes(600, 65));
}

void fill(CrashSession& session, hx::Store* store) {
  session.append(store, "large", makeBytes(9000, 33));
  session.append(store, "last", makeBytes(300, 107));
}

void appendToItems(CrashSession& session, hx::Store* store) {
  session.append(store, "first", makeBytes(700, 98));
  session.append(store, "last", makeBytes(50, 109));
}

void addAndNest(CrashSession& session, hx::Store* store) {
  session.append(store, "added", makeBytes(30, 48));
  session.append(store, "nested/deeper/innermost", makeBytes(520, 67));
}

class CrashExplorer {
 public:
  CrashExplorer(const CrashScenario& scenario, const CrashSettings& settings)
      : scenario_(scenario), settings_(settings), random_(settings.seed) {}

  CrashReport explore() {
    for (size_t step = scenario_.firstCut; step < scenario_.steps.size(); ++step) {
      exploreStep(diskBefore(scenario_, step), diskBefore(scenario_, step + 1),
                  scenario_.steps[step]);
    }
    return report_;
  }

 private:
  void exploreStep(const DiskImage& before, const DiskImage& after, CrashStep update) {
    const std::set<std::string> either = {lookAt(before), lookAt(after)};
    SimulatedDisk disk(before);
    disk.watch = [&](const DiskStep& step) {
      if (step.changesDisk()) cutPower(disk, either, true);
    };
    hxhost::HostOptions options = hostOver(disk, settings_.cacheBytes);
    options.durability = settings_.durability;
    CrashSession session(options);
    if (!runCrashStep(session, update)) fail("the store did not open");
    disk.watch = nullptr;
    cutPower(disk, {lookAt(after)}, true);
  }

  void cutPower(const SimulatedDisk& disk, const std::set<std::string>& allowed, bool isFirst) {
    ++report_.cuts;
    const size_t count = disk.pending().size();
    std::vector<Fate> fates(count, Fate::kKept);
    const int exhaustive = isFirst ? settings_.exhaustive : settings_.exhaustive / 3;
    if (std::ssize(fates) > exhaustive) return sample(disk, fates, allowed, isFirst);
    for (uint32_t kept = 0; kept < 1u << count; ++kept) {
      for (const Fate lost : {Fate::kDropped, Fate::kTorn}) {
        for (size_t i = 0; i < count; ++i)
          fates[i] = (kept >> i & 1) != 0 ? Fate::kKept : lost;
        examine(disk.afterPowerCut(fates, random_), allowed, isFirst);
      }
    }
  }

  void sample(const SimulatedDisk& disk, std::vector<Fate>& fates,
              const std::set<std::string>& allowed, bool isFirst) {
    examine(disk.afterPowerCut(fates, random_), allowed, isFirst);
    for (int i = 0; i < (isFirst ? settings_.samples : settings_.samples / 4 + 1); ++i) {
      const uint32_t odds = random_() % 8 + 1;
      for (Fate& fate : fates)
        fate = random_() % 9 < odds ? Fate::kKept
               : random_() % 2 == 0 ? Fate::kDropped
                                    : Fate::kTorn;
      examine(disk.afterPowerCut(fates, random_), allowed, isFirst);
    }
  }

  void examine(const DiskImage& image, const std::set<std::string>& allowed, bool isFirst) {
    ++report_.states;
    report_.rollbackStates += !isFirst;
    SimulatedDisk disk(image);
    const bool isCutAgain = isFirst && image.has(kCrashJournal) &&
                            ++journals_ % static_cast<uint64_t>(settings_.rollbackEvery) == 0;
    if (isCutAgain) {
      disk.watch = [&](const DiskStep& step) {
        if (step.changesDisk()) cutPower(disk, allowed, false);
      };
    }
    const std::string found = lookAt(disk, report_.states % 8 == 0 ? hx::kUpdate : hx::kRead);
    if (allowed.count(found) == 0) fail("found " + found.substr(0, 200));
    if (isCutAgain) cutPower(disk, allowed, false);
  }

  void fail(const std::string& what) {
    if (report_.failures++ != 0) return;
    report_.firstFailure = std::string(scenario_.name) + ", seed " +
                           std::to_string(settings_.seed) + ", cut " +
                           std::to_string(report_.cuts) + ": " + what;
  }

  const CrashScenario& scenario_;
  const CrashSettings settings_;
  std::mt19937 random_;
  uint64_t journals_ = 0;
  CrashReport report_;
};

}  // namespace

const std::vector<CrashScenario>& crashScenarios() {
  static const std::vector<CrashScenario> kScenarios = {
      {"create", {create}, 0},
      {"append", {create, fill, appendToItems}, 2},
      {"add and nest", {create, fill, addAndNest}, 2},
      {"update twice", {create, fill, addAndNest, appendToItems}, 2}};
  return kScenarios;
}

void CrashReport::add(const CrashReport& other) {
  states += other.states;
  rollbackStates += other.rollbackStates;
  cuts += other.cuts;
  failures += other.failures;
  if (firstFailure.empty()) firstFailure = other.firstFailure;
}

CrashReport exploreCrashes(const CrashScenario& scenario, const CrashSettings& settings) {
  return CrashExplorer(scenario, settings).explore();
}

DiskImage diskBefore(const CrashScenario& scenario, size_t step) {
  SimulatedDisk disk;
  for (size_t i = 0; i < step; ++i) {
    CrashSession session(hostOver(disk));
    runCrashStep(session, scenario.steps[i]);
  }
  return disk.live();
}

bool runCrashStep(CrashSession& session, CrashStep step) {
  hx::Store* store = session.open(kCrashStore, hx::kUpdate | hx::kCreate);
  if (store == nullptr) return false;
  step(session, store);
  session.close(store);
  return true;
}

hxhost::HostOptions hostOver(SimulatedDisk& disk, int64_t cacheBytes) {
  hxhost::HostOptions options;
  options.cacheBytesPerFile = cacheBytes;
  options.fileOps = {&disk, [](hxhost::FileOps*) {}};
  return options;
}

std::string lookAt(SimulatedDisk& disk, uint32_t flags) {
  return CrashSession(hostOver(disk)).look(kCrashStore, flags);
}

std::string lookAt(const DiskImage& image) {
  SimulatedDisk disk(image);
  return lookAt(disk);
}

}  // namespace hxtest
