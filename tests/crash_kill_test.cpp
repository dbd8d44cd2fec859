// Processes that update a store on the real disk until they are killed.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

using hxhost::Durability;

// One update of those that make up a store's history: each adds to one of three items, every fourth
// makes a new one. Small pages let it span several blocks of the file.
bool update(CrashSession& session, const std::u32string& path, int64_t number) {
  hx::Store* store = session.open(path, hx::kUpdate | hx::kCreate);
  if (store == nullptr) return false;
  store->setPageSize(store, 256);
  const std::string bytes(700, static_cast<char>('a' + number % 26));
  session.append(store, "item" + std::to_string(number % 3), bytes);
  if (number % 4 == 0) session.append(store, "nested/" + std::to_string(number), "x");
  session.close(store);
  return true;
}

// Updates until it is killed. Says through the pipe when an update is complete.
[[noreturn]] void updateForEver(const hxhost::HostOptions& options, const std::u32string& path,
                                int64_t number, int pipe) {
  CrashSession session(options);
  for (;; ++number) {
    const bool isDone = update(session, path, number) && !session.host.takeFileFailure();
    if (!isDone || ::write(pipe, "+", 1) != 1) ::_exit(2);
  }
}

// Forks an updater and kills it after that time. The updates that it announced, -1 when it ended by
// itself.
int64_t runUntilKilled(const hxhost::HostOptions& options, const std::u32string& path,
                       int64_t number, std::chrono::microseconds time) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  const pid_t child = ::fork();
  if (child == 0) updateForEver(options, path, number, ends[1]);
  ::close(ends[1]);
  std::this_thread::sleep_for(time);
  if (child > 0) ::kill(child, SIGKILL);
  int64_t announced = 0;
  char byte;
  while (::read(ends[0], &byte, 1) == 1)
    ++announced;
  ::close(ends[0]);
  int status = 0;
  const bool wasKilled = child > 0 && ::waitpid(child, &status, 0) == child && WIFSIGNALED(status);
  return wasKilled ? announced : -1;
}

struct KillReport {
  int64_t updates = 0;      // completed by the processes
  uint64_t rolledBack = 0;  // kills that left a journal behind
};

// Kills that many, each at a random moment, and looks at the store after each: it must hold the
// last update that the process announced as complete, or the one that it had begun.
KillReport killUpdaters(uint64_t kills, Durability durability, unsigned seed) {
  const TemporaryDirectory directory;
  const std::string file = directory / "killed";
  const std::u32string path(file.begin(), file.end());
  const hxhost::HostOptions options{4096, nullptr, durability};
  CrashSession undisturbed({4096, nullptr, Durability::none});
  int64_t made = 0;
  const auto expectedAfter = [&](int64_t count) {
    for (; made < count; ++made)
      update(undisturbed, path + U"-expected", made);
    return undisturbed.look(path + U"-expected");
  };
  const unsigned longest = durability == Durability::full ? 80000 : 20000;
  std::mt19937 random(seed);
  KillReport report;
  for (uint64_t kill = 0; kill < kills && !testing::Test::HasFailure(); ++kill) {
    const int64_t announced = runUntilKilled(options, path, report.updates,
                                             std::chrono::microseconds(random() % longest));
    report.updates += announced;
    report.rolledBack += std::filesystem::exists(file + "-journal");
    const std::string found = CrashSession(options).look(path);
    const bool isLast = found == expectedAfter(report.updates);
    const bool isNext = !isLast && found == expectedAfter(report.updates + 1);
    report.updates += isNext;
    EXPECT_TRUE(announced >= 0 && (isLast || isNext))
        << "after " << report.updates << " updates, seed " << seed << ": " << found.substr(0, 200);
  }
  return report;
}

TEST(CrashTest, AKilledProcessLeavesAStateThatItAnnounced) {
  for (const Durability durability : {Durability::full, Durability::none})
    killUpdaters(15, durability, 3);
}

TEST(CrashTest, DISABLED_ManyKilledProcesses) {
  const char* const wanted = std::getenv("HX_CRASH_KILLS");
  const uint64_t kills = std::strtoull(wanted != nullptr ? wanted : "200", nullptr, 10);
  for (const Durability durability : {Durability::full, Durability::none}) {
    const KillReport report = killUpdaters(kills, durability, 1);
    std::cout << kills << " processes killed, durability "
              << (durability == Durability::full ? "full" : "none") << ": they completed "
              << report.updates << " updates and left " << report.rolledBack
              << " to be rolled back\n";
  }
}

}  // namespace
}  // namespace hxtest
