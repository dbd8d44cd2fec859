// States after a power cut: a sample, and the long run of `./dev crash`.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "tests/crash_states.h"

namespace hxtest {
namespace {

using hxhost::Durability;

CrashReport exploreAll(CrashSettings settings) {
  CrashReport report;
  for (const CrashScenario& scenario : crashScenarios()) {
    for (const int64_t cacheBytes : {256, 4096, 65536}) {
      settings.cacheBytes = cacheBytes;
      report.add(exploreCrashes(scenario, settings));
    }
  }
  EXPECT_EQ(report.failures, 0u) << report.firstFailure;
  return report;
}

TEST(CrashTest, EveryStateHoldsTheStoreBeforeOrAfter) {
  const CrashReport report = exploreAll({7, 0, 9, 8, 25, Durability::full});
  EXPECT_GT(report.states, 10000u);
  EXPECT_GT(report.rollbackStates, 5000u);
}

TEST(CrashTest, DISABLED_ManyStates) {
  const char* const wanted = std::getenv("HX_CRASH_STATES");
  const uint64_t states = std::strtoull(wanted != nullptr ? wanted : "1000000", nullptr, 10);
  CrashReport report;
  for (unsigned round = 1; report.states < states; ++round)
    report.add(exploreAll({round, 0, 12, 100, 20, Durability::full}));
  std::cout << report.states << " states after " << report.cuts << " power cuts, "
            << report.rollbackStates << " of them after a second one, in the rollback\n";
}

// The search finds what it is there to find: without syncs a power cut does harm.
TEST(CrashTest, WithoutSyncsStoresAreLost) {
  for (const CrashScenario& scenario : crashScenarios()) {
    EXPECT_GT(exploreCrashes(scenario, {7, 65536, 8, 6, 60, Durability::none}).failures, 0u);
  }
}

}  // namespace
}  // namespace hxtest
