// A sample of the long run: states after a power cut, and processes that are killed.
#include <gtest/gtest.h>

#include "tests/crash_kills.h"
#include "tests/crash_states.h"

namespace hxtest {
namespace {

using hxhost::Durability;

TEST(CrashTest, EveryStateHoldsTheStoreBeforeOrAfter) {
  CrashReport report;
  for (const CrashScenario& scenario : crashScenarios()) {
    for (const int64_t cacheBytes : {256, 4096, 65536}) {
      report.add(exploreCrashes(scenario, {7, cacheBytes, 9, 8, 25, Durability::full}));
    }
  }
  EXPECT_EQ(report.failures, 0u) << report.firstFailure;
  EXPECT_GT(report.states, 10000u);
  EXPECT_GT(report.rollbackStates, 5000u);
}

// The search finds what it is there to find: without syncs a power cut does harm.
TEST(CrashTest, WithoutSyncsStoresAreLost) {
  for (const CrashScenario& scenario : crashScenarios()) {
    EXPECT_GT(exploreCrashes(scenario, {7, 65536, 8, 6, 60, Durability::none}).failures, 0u);
  }
}

TEST(CrashTest, AKilledProcessLeavesAStateThatItAnnounced) {
  for (const Durability durability : {Durability::full, Durability::none}) {
    const KillReport report = killUpdaters(15, durability, 3);
    EXPECT_EQ(report.failures, 0u) << report.firstFailure;
    EXPECT_EQ(report.kills, 15u);
  }
}

}  // namespace
}  // namespace hxtest
