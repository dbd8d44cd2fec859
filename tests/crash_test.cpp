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
#include <thread>

#include "tests/crash_explorer.h"
#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

using hxhost::Durability;
using hxhost::HostOptions;

uint64_t wantedBy(const char* variable) {
  const char* const wanted = std::getenv(variable);
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 0;
}

// Opens the store in either way.
std::string lookInTurn(SimulatedDisk& disk) {
  static uint64_t looks = 0;
  return lookAt(disk, ++looks % 8 == 0 ? hx::kUpdate : hx::kRead);
}

// One update of the store; a smaller cache makes more and smaller writes.
void exploreUpdate(CrashExplorer& explorer, Durability durability, size_t step,
                   int64_t cacheBytes) {
  const std::string after = lookAt(diskBefore(step + 1));
  SimulatedDisk disk(diskBefore(step));
  explorer.allow({lookAt(diskBefore(step)), after});
  explorer.watch(disk);
  HostOptions options = hostOver(disk, cacheBytes);
  options.durability = durability;
  ASSERT_TRUE(CrashSession(options).update(step));
  explorer.allow({after});
  explorer.cutPower(disk);
}

TEST(CrashTest, EveryStateHoldsTheStoreBeforeOrAfter) {
  const uint64_t wanted = wantedBy("HX_CRASH_STATES");
  CrashExplorer explorer(lookInTurn, wanted > 0);
  do {
    for (size_t step = 0; step < 4; ++step)
      for (const int64_t cacheBytes : {256, 4096, 65536})
        exploreUpdate(explorer, Durability::full, step, cacheBytes);
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
    CrashExplorer explorer(lookInTurn);
    exploreUpdate(explorer, Durability::none, step, 65536);
    EXPECT_NE(explorer.firstFailure, "") << step;
  }
}

// The bytes of the file once it was opened; nothing is known of them but who wrote them.
std::string readRaw(SimulatedDisk& disk) {
  CrashFiles files(hostOver(disk));
  hx::FileHandle* file = files.open(kCrashStore, hx::HX_ACCESS_READ);
  if (file != nullptr) file->close(file);
  const DiskBytes bytes = disk.live().at(kCrashFile);
  return {bytes.begin(), bytes.end()};
}

// Four commits in one update that goes on in the same file, and what follows them is given up: each
// state is the last commit or the one before it.
TEST(CrashTest, EveryStateOfCommitsIsTheLastOrTheOneBefore) {
  CrashExplorer explorer(readRaw, wantedBy("HX_CRASH_STATES") > 0);
  std::mt19937 random(5);
  for (const int64_t cacheBytes : {256, 4096, 65536}) {
    for (const size_t size : {0u, 9000u}) {
      const std::string old = makeBytes(size, 1);
      SimulatedDisk disk({{{kCrashFile, 1}}, {{1, {old.begin(), old.end()}}}});
      if (size == 0) disk = SimulatedDisk();
      CrashFiles files(hostOver(disk, cacheBytes));
      std::string committed = old;
      explorer.watch(disk);
      explorer.allow({committed});
      hx::FileHandle* file = files.open(kCrashStore, hx::HX_ACCESS_UPDATE);
      for (unsigned commit = 0; commit < 5; ++commit) {
        std::string next = committed;
        for (int i = 0; i < 3; ++i) {
          int64_t at = static_cast<int64_t>(random() % (next.size() + 600));
          const std::string bytes = makeBytes(random() % 3000 + 1, commit);
          next.resize(std::max(next.size(), static_cast<size_t>(at) + bytes.size()));
          next.replace(static_cast<size_t>(at), bytes.size(), bytes);
          file->seek(file, &at, hx::HX_SEEK_START, 0);
          file->write(file, bytes.data(), std::ssize(bytes), 0, 0, 0);
        }
        if (commit == 4) break;
        explorer.allow({committed, next});
        ASSERT_TRUE(hxhost::LinuxHost::commitUpdate(file));
        committed = next;
        explorer.allow({committed});
        explorer.cutPower(disk);
      }
      hxhost::LinuxHost::abandonUpdate(file);
      file->close(file);
      explorer.cutPower(disk);
    }
  }
  EXPECT_EQ(explorer.firstFailure, "");
  EXPECT_GT(explorer.states, 5000u);
  std::cout << explorer.states << " states of updates with four commits\n";
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
