// What power cuts leave of a store whose name is given, taken and given away: files are created,
// replaced, removed, renamed over each other and written anew in any order, and processes die in
// between.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "api/engine.h"
#include "tests/crash_explorer.h"
#include "tests/crash_session.h"

namespace hxtest {
namespace {

constexpr const char* kNewFile = "/new";

// A disk on which one change of the store follows the other. A change that was told to be done is
// found by every later opening; one that is under way is found done, not done or, where that is in
// its nature, half done.
class NamedStore {
 public:
  explicit NamedStore(CrashExplorer& explorer) : explorer_(explorer) { explorer_.watch(disk_); }

  using Change = std::function<void(SimulatedDisk& disk)>;

  void apply(const Change& change, std::set<std::string> between = {}) {
    const std::string after = lookAfter(change);
    between.merge(std::set(found_));
    between.insert(after);
    explorer_.allow(between);
    change(disk_);
    found_ = {after};
    explorer_.allow(found_);
    explorer_.cutPower(disk_);
  }

  // The process dies at the `count`-th operation that changes the disk.
  void dieIn(const Change& change, int count) {
    found_.insert(lookAfter(change));
    explorer_.allow(found_);
    SimulatedDisk left = disk_;
    disk_.watch = [&](const DiskStep& step) {
      if (step.changesDisk() && count-- == 0) left = disk_;
    };
    change(disk_);
    disk_ = left;
    disk_.closeAll();
    explorer_.watch(disk_);
    explorer_.cutPower(disk_);
  }

  // As file systems do that keep the order of a directory's changes. On others the name that a dead
  // process gave without a sync may be lost, and the journal be found that the next update made
  // beside the new file.
  void putNamesOnDisk() { disk_.syncDirectory(0); }

 private:
  std::string lookAfter(const Change& change) const {
    SimulatedDisk trial(disk_.live());
    change(trial);
    return lookAt(trial);
  }

  CrashExplorer& explorer_;
  SimulatedDisk disk_;
  std::set<std::string> found_ = {"absent"};
};

void update(SimulatedDisk& disk, uint32_t flags, unsigned seed) {
  CrashSession session(hostOver(disk));
  hx::Store* store = session.open(kCrashStore, hx::kUpdate | hx::kCreate | flags);
  ASSERT_NE(store, nullptr);
  session.append(store, "item", makeBytes(seed % 5000, seed));
  session.append(store, "other", makeBytes(100, seed));
  session.close(store);
}

void removeStore(SimulatedDisk& disk) {
  CrashSession session(hostOver(disk));
  hx::Store* store = session.open(kCrashStore, hx::kUpdate);
  if (store != nullptr) store->closeAndDeleteStore(store);
}

// As a command makes a file whole before it takes the place of an old one, which it keeps others
// from using meanwhile; that rolls back what is to be rolled back.
void renameOver(SimulatedDisk& disk, unsigned seed) {
  SimulatedDisk elsewhere;
  update(elsewhere, 0, seed);
  const DiskBytes bytes = elsewhere.live().at(kCrashFile);
  CrashFiles files(hostOver(disk));
  hx::FileHandle* old = files.open(kCrashStore, hx::HX_ACCESS_READ);
  disk.syncDirectory(0);  // a journal that is gone must not come back beside the new file
  const int made = disk.open(kNewFile, hxhost::OpenMode::kCreateNew);
  disk.writeAt(made, bytes.data(), bytes.size(), 0);
  disk.sync(made);
  disk.close(made);
  disk.rename(kNewFile, kCrashFile);
  disk.syncDirectory(0);
  if (old != nullptr) old->close(old);
}

// Members get other names, pages another size.
void rewrite(SimulatedDisk& disk, unsigned seed) {
  disk.knowsNameless = seed % 2 != 0;
  const auto engine =
      std::make_shared<hxcrate::Engine>(hxcrate::SessionOptions{}, hostOver(disk).fileOps);
  hxcrate::RewriteOptions options{.pageSize = 512 + static_cast<int>(seed % 2) * 300};
  options.rename = [&](const auto& member) {
    return member.path + static_cast<char>('a' + seed % 26);
  };
  std::error_code error;
  hxcrate::Engine::makeSession(engine).rewrite("/s", error, options);
  const bool isNone = error == hxcrate::Errc::notFound || error == hxcrate::Errc::notAStore;
  EXPECT_TRUE(!error || isNone) << error.message();
}

TEST(CrashTest, EveryStateOfNamesHoldsTheLastStoreOrTheOneBefore) {
  const bool isLong = std::getenv("HX_CRASH_STATES") != nullptr;
  CrashExplorer explorer([](SimulatedDisk& disk) { return lookAt(disk); }, isLong);
  for (unsigned seed = 0; seed < (isLong ? 200u : 20u) && explorer.firstFailure.empty(); ++seed) {
    std::mt19937 random(seed);
    NamedStore store(explorer);
    for (int i = 0; i < 8; ++i) {
      const auto content = static_cast<unsigned>(random());
      const auto append = [=](SimulatedDisk& disk) { update(disk, 0, content); };
      const auto replace = [=](SimulatedDisk& disk) { update(disk, hx::kReplace, content); };
      const auto rename = [=](SimulatedDisk& disk) { renameOver(disk, content); };
      const auto renew = [=](SimulatedDisk& disk) { rewrite(disk, content); };
      switch (random() % 7) {
        case 0:
          store.apply(append);
          break;
        case 1:
          store.apply(replace, {"absent"});
          break;
        case 2:
          store.apply(removeStore);
          break;
        case 3:
          store.apply(rename);
          break;
        case 4:
          store.apply(renew);
          break;
        case 5:
          store.dieIn(renew, static_cast<int>(random() % 12));
          store.putNamesOnDisk();
          break;
        default:
          store.dieIn(append, static_cast<int>(random() % 12));
      }
    }
  }
  EXPECT_EQ(explorer.firstFailure, "");
  EXPECT_GT(explorer.states, 5000u);
  std::cout << explorer.states << " states of names that were given and taken\n";
}

}  // namespace
}  // namespace hxtest
