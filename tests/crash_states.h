// Every state in which a power cut can leave the disk while a store is being updated: each is
// opened by the real module on the real host, and must hold the store as it was before the update
// or as it was after.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/crash_session.h"
#include "tests/simulated_disk.h"

namespace hxtest {

// One update, from the opening of the store to its close.
using CrashStep = void (*)(CrashSession& session, hx::Store* store);

struct CrashScenario {
  const char* name;
  std::vector<CrashStep> steps;
  size_t firstCut;  // the step from which on the power is cut
};

const std::vector<CrashScenario>& crashScenarios();

struct CrashSettings {
  unsigned seed = 1;
  int64_t cacheBytes = 65536;  // smaller ones make more and smaller writes
  int exhaustive = 12;         // as many unsynced changes are combined in every way
  int samples = 20;            // combinations of more
  int rollbackEvery = 10;      // of the states to be rolled back, one in so many is cut again then
  hxhost::Durability durability = hxhost::Durability::full;
};

struct CrashReport {
  uint64_t states = 0;
  uint64_t rollbackStates = 0;  // of them, left by a second cut
  uint64_t cuts = 0;            // operations of the disk before which the power was cut
  uint64_t failures = 0;
  std::string firstFailure;

  void add(const CrashReport& other);
};

CrashReport exploreCrashes(const CrashScenario& scenario, const CrashSettings& settings);

// The store of the scenarios, and the disk after their steps before `step`.
constexpr std::u32string_view kCrashStore = U"/s";
constexpr const char* kCrashFile = "/s";
constexpr const char* kCrashJournal = "/s-journal";
DiskImage diskBefore(const CrashScenario& scenario, size_t step);

// Runs one step on a disk: opens, updates and closes. False when the store did not open.
bool runCrashStep(CrashSession& session, CrashStep step);

// A host over that disk, which outlives it.
hxhost::HostOptions hostOver(SimulatedDisk& disk, int64_t cacheBytes = 65536);

// What the module finds on that disk; the opening may change it.
std::string lookAt(SimulatedDisk& disk, uint32_t flags = hx::kRead);
std::string lookAt(const DiskImage& image);

}  // namespace hxtest
