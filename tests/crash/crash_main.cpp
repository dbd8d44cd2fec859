// The long run: a million states of the disk and more, and hundreds of killed processes.
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "tests/crash_kills.h"
#include "tests/crash_states.h"

namespace {

using hxtest::CrashReport;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point began) {
  return std::chrono::duration<double>(Clock::now() - began).count();
}

CrashReport explore(unsigned round) {
  CrashReport report;
  for (const hxtest::CrashScenario& scenario : hxtest::crashScenarios()) {
    for (const int64_t cacheBytes : {256, 4096, 65536}) {
      report.add(hxtest::exploreCrashes(
          scenario, {round, cacheBytes, 12, 100, 20, hxhost::Durability::full}));
    }
  }
  return report;
}

int print(const char* what, uint64_t count, uint64_t failures, const std::string& first,
          double seconds) {
  std::printf("%s: %" PRIu64 ", failures: %" PRIu64 ", %.0f s\n", what, count, failures, seconds);
  if (failures != 0) std::printf("first failure: %s\n", first.c_str());
  std::fflush(stdout);
  return failures != 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

// crash [states] [kills]
int main(int count, char** arguments) {
  const uint64_t wanted = count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 1'000'000;
  const int kills = count > 2 ? static_cast<int>(std::strtol(arguments[2], nullptr, 10)) : 200;
  auto began = Clock::now();
  CrashReport report;
  for (unsigned round = 1; report.states < wanted; ++round)
    report.add(explore(round));
  int result = print("states after a power cut", report.states, report.failures,
                     report.firstFailure, secondsSince(began));
  std::printf("of them after a second one, in the rollback: %" PRIu64 "; cuts: %" PRIu64 "\n",
              report.rollbackStates, report.cuts);
  for (const hxhost::Durability durability : {hxhost::Durability::full, hxhost::Durability::none}) {
    began = Clock::now();
    const hxtest::KillReport killed = hxtest::killUpdaters(kills, durability, 1);
    result |= print(durability == hxhost::Durability::full ? "processes killed, durability full"
                                                           : "processes killed, durability none",
                    killed.kills, killed.failures, killed.firstFailure, secondsSince(began));
    std::printf("updates that they completed: %" PRId64 ", left to be rolled back: %" PRIu64 "\n",
                killed.updates, killed.rolledBack);
  }
  return result;
}
