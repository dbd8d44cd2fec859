// What crashes leave of a store: of the machine, whose power is cut at every operation of the
// simulated disk, and of processes that are killed while they update on the real one. A sample;
// `./dev crash` says how much more it wants in HX_CRASH_STATES and HX_CRASH_KILLS.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <set>
#include <thread>

#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

using hxhost::Durability;
using hxhost::HostOptions;

// Every state in which a power cut can leave the disk while the store is being updated: each is
// opened by the real module on the real host, and must hold the store as it was before the update
// or as it is after it. Few unsynced changes are combined in every way, of more a sample is; some
// of the states that are to be rolled back are cut again then. Longer searches combine more.
class CrashExplorer {
 public:
  explicit CrashExplorer(Durability durability, bool isLong = false)
      : durability_(durability), isLong_(isLong) {}

  // One update of the store; a smaller cache makes more and smaller writes.
  void explore(size_t step, int64_t cacheBytes) {
    const std::string after = lookAt(diskBefore(step + 1));
    allowed_ = {lookAt(diskBefore(step)), after};
    SimulatedDisk disk(diskBefore(step));
    disk.watch = [&](const DiskStep& done) {
      if (done.changesDisk()) cutPower(disk, true);
    };
    HostOptions options = hostOver(disk, cacheBytes);
    options.durability = durability_;
    ASSERT_TRUE(CrashSession(options).update(step));
    allowed_ = {after};
    cutPower(disk, true);
  }

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
    const bool isCutAgain = isFirst && image.has(kCrashJournal) && ++journals_ % 25 == 0;
    disk.watch = [&](const DiskStep& done) {
      if (isCutAgain && done.changesDisk()) cutPower(disk, false);
    };
    const std::string found = lookAt(disk, states % 8 == 0 ? hx::kUpdate : hx::kRead);
    if (isCutAgain) cutPower(disk, false);
    if (allowed_.count(found) != 0 || !firstFailure.empty()) return;
    firstFailure = "cut " + std::to_string(cuts) + ": found " + found.substr(0, 200);
  }

  const Durability durability_;
  const bool isLong_;
  std::mt19937 random_{7};
  std::set<std::string> allowed_;
  uint64_t journals_ = 0;
};

uint64_t wantedBy(const char* variable) {
  const char* const wanted = std::getenv(variable);
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 0;
}

TEST(CrashTest, EveryStateHoldsTheStoreBeforeOrAfter) {
  const uint64_t wanted = wantedBy("HX_CRASH_STATES");
  CrashExplorer explorer(Durability::full, wanted > 0);
  do {
    for (size_t step = 0; step < 4; ++step)
      for (const int64_t cacheBytes : {256, 4096, 65536})
        explorer.explore(step, cacheBytes);
  } while (explorer.states < wanted && !HasFailure());
  EXPECT_EQ(explorer.firstFailure, "");
  EXPECT_GT(explorer.states, 10000u);
  EXPECT_GT(explorer.statesOfRollbacks, 5000u);
  std::cout << explorer.states << " states after " << explorer.cuts << " power cuts, "
            << explorer.statesOfRollbacks << " of them after a second one, in the rollback\n";
}

// The search finds what it is there to find: without syncs a power cut does harm.
TEST(CrashTest, WithoutSyncsStoresAreLost) {
  for (size_t step = 0; step < 4; ++step) {
    CrashExplorer explorer(Durability::none);
    explorer.explore(step, 65536);
    EXPECT_NE(explorer.firstFailure, "") << step;
  }
}

// Each update adds as many letters of its own to three items.
std::string addedBy(uint64_t number) {
  return std::string(250, static_cast<char>('a' + number % 26));
}

std::string textAfter(uint64_t updates) {
  std::string bytes;
  for (uint64_t number = 0; number < updates; ++number)
    bytes += addedBy(number);
  return updates == 0 ? "absent" : "a=" + bytes + ";b=" + bytes + ";nested{c=" + bytes + ";}";
}

// Small pages let an update span several blocks of the file.
[[noreturn]] void updateForEver(const HostOptions& options, const std::u32string& path,
                                std::atomic<uint64_t>& completed) {
  CrashSession session(options);
  for (;; ++completed) {
    hx::Store* store = session.open(path, hx::kUpdate | hx::kCreate);
    if (store == nullptr) ::_exit(2);
    store->setPageSize(store, 256);
    for (const char* item : {"a", "b", "nested/c"})
      session.append(store, item, addedBy(completed));
    session.close(store);
    if (session.file->loss()) ::_exit(2);
  }
}

// The store holds the last update that the process completed, or the one that it had begun.
TEST(CrashTest, AKilledProcessLeavesAStateThatItCompleted) {
  constexpr int kShared = MAP_SHARED | MAP_ANONYMOUS;
  void* const memory = ::mmap(nullptr, 8, PROT_READ | PROT_WRITE, kShared, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& completed = *static_cast<std::atomic<uint64_t>*>(memory);
  const uint64_t kills = std::max<uint64_t>(wantedBy("HX_CRASH_KILLS"), 15);
  std::mt19937 random(3);
  for (const Durability durability : {Durability::full, Durability::none}) {
    const TemporaryDirectory directory;
    const std::string file = directory / "killed";
    const std::u32string path(file.begin(), file.end());
    const HostOptions options{4096, nullptr, durability};
    const unsigned longest = durability == Durability::full ? 80000 : 20000;
    uint64_t rolledBack = 0;
    completed = 0;
    for (uint64_t kill = 0; kill < kills && !HasFailure(); ++kill) {
      const pid_t child = ::fork();
      if (child == 0) updateForEver(options, path, completed);
      std::this_thread::sleep_for(std::chrono::microseconds(random() % longest));
      ASSERT_TRUE(child > 0 && ::kill(child, SIGKILL) == 0);
      int status = 0;
      EXPECT_TRUE(::waitpid(child, &status, 0) == child && WIFSIGNALED(status));
      rolledBack += std::filesystem::exists(file + "-journal");
      const std::string found = CrashSession(options).look(path);
      completed += found == textAfter(completed + 1);
      EXPECT_EQ(found, textAfter(completed));
    }
    std::cout << kills << " processes killed, durability "
              << (durability == Durability::full ? "full" : "none") << ": they completed "
              << completed << " updates and left " << rolledBack << " to be rolled back\n";
  }
  ::munmap(memory, 8);
}

}  // namespace
}  // namespace hxtest
