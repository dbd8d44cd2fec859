// Updates of store files as transactions: what they cost, who is kept out, and whose journal is
// whose. The real module, over simulated disks and on the real one.
#include <gtest/gtest.h>

#include "host/linux/journal_format.h"
#include "tests/crash_session.h"

namespace hxtest {
namespace {

using namespace std::string_literals;
using hx::kCreate;
using hx::kRead;
using hx::kUpdate;
using hxhost::Durability;
using hxhost::HostOptions;

constexpr uint32_t kReplaceAll = kUpdate | kCreate | hx::kReplace;

// The disk when the process dies with the file's new bytes written and the journal still there.
DiskImage interruptedUpdate(size_t step) {
  SimulatedDisk disk(diskBefore(step));
  DiskImage image;
  disk.watch = [&](const DiskStep& done) {
    if (done.operation == DiskOperation::kUnlink && done.path == kCrashJournal) image = disk.live();
  };
  CrashSession(hostOver(disk)).update(step);
  return image;
}

// The journal's bytes and its name; the file's bytes; and that the journal's name is gone.
TEST(LinuxFaultTest, AnUpdateCostsFourSyncsAndNothingWhenNothingChanges) {
  for (const bool changes : {true, false}) {
    for (const Durability durability : {Durability::full, Durability::none}) {
      SimulatedDisk disk(diskBefore(2));
      std::string syncs;
      bool writes = false;
      disk.watch = [&](const DiskStep& step) {
        if (step.isSync()) syncs += step.path + " ";
        writes |= step.operation == DiskOperation::kWrite;
      };
      HostOptions options = hostOver(disk);
      options.durability = durability;
      CrashSession session(options);
      changes ? void(session.update(2)) : void(session.look(kCrashStore, kUpdate));
      EXPECT_EQ(syncs, changes && durability == Durability::full ? "/s-journal / /s / " : "");
      EXPECT_EQ(writes, changes);
    }
  }
}

TEST(LinuxFaultTest, ReadersRollBackOnlyWhatTheyMayWrite) {
  const std::string before = lookAt(diskBefore(2));
  SimulatedDisk disk(interruptedUpdate(2));
  for (const auto& [isReadOnly, found] :
       {std::pair(true, "absent"s), {false, before}, {true, before}}) {
    disk.isReadOnly = isReadOnly;
    HostOptions careless = hostOver(disk);
    careless.durability = Durability::none;
    CrashSession first(careless);
    hx::Store* store = first.open(kCrashStore, kRead);
    EXPECT_EQ(lookAt(disk), found) << "readers share also after it";
    if (store != nullptr) first.close(store);
  }
  DiskImage afterCut = disk.synced();
  EXPECT_FALSE(afterCut.has(kCrashJournal)) << "whoever the name is given to next has none";
  EXPECT_EQ(lookAt(afterCut), before) << "on disk before the journal goes, whoever rolls back";
}

TEST(LinuxFaultTest, ARollbackThatFailsIsMadeUpFor) {
  for (const size_t step : {0u, 2u}) {
    bool isOver = false;
    for (int64_t failAt = 0; !isOver; ++failAt) {
      SimulatedDisk disk(interruptedUpdate(step));
      disk.failAt = failAt;
      lookAt(disk);
      isOver = !disk.hasFired;
      disk.failAt = -1;
      EXPECT_TRUE(!isOver || step > 0 || disk.live().names.empty()) << "it goes if it was created";
      EXPECT_TRUE(CrashSession(hostOver(disk)).update(step)) << failAt;
      EXPECT_EQ(lookAt(disk), lookAt(diskBefore(step + 1))) << failAt;
    }
  }
}

template <typename Field>
void changeHeader(DiskBytes& journal, Field hxhost::JournalHeader::*field, Field value) {
  auto& header = *reinterpret_cast<hxhost::JournalHeader*>(journal.data());
  header.*field = value;
  header.checksum = checksumOf(header);
}

TEST(LinuxFaultTest, AJournalIsAppliedToItsOwnFileOnlyAndGoesWithIt) {
  const std::string before = lookAt(diskBefore(2));
  const std::string after = lookAt(diskBefore(3));
  const struct {
    const char* name;
    std::function<void(DiskImage&, DiskBytes& file, DiskBytes& journal)> happen;
    std::string found;
    bool isRefused;
    bool isKept = false;  // the journal, against a replacing open too
  } cases[] = {
      {"nothing", [](auto&, auto&, auto&) {}, before, false},
      {"replaced",
       [](auto& image, auto& file, auto&) {
         image.inodes[50] = file;
         image.names[kCrashFile] = 50;
       },
       "absent", true},
      {"recreated under its number", [](auto& image, auto&, auto&) { image.birth = 2; }, "absent",
       true},
      {"of a birth that is no longer told", [](auto& image, auto&, auto&) { image.birth = 0; },
       before, false},
      {"of no birth",
       [](auto&, auto&, auto& journal) {
         changeHeader(journal, &hxhost::JournalHeader::birth, int64_t{0});
       },
       "absent", true},
      {"cut", [](auto&, auto& file, auto&) { file.resize(3000); }, "absent", true},
      {"emptied", [](auto&, auto& file, auto&) { file.clear(); }, "absent", false},
      {"removed", [](auto& image, auto&, auto&) { image.names.erase(kCrashFile); }, "absent", true},
      {"a later version",
       [](auto&, auto&, auto& journal) {
         changeHeader(journal, &hxhost::JournalHeader::version, uint32_t{2});
       },
       "absent", true},
      {"damaged", [](auto&, auto&, auto& journal) { journal[8] ^= 2; }, after, false},
      {"torn", [](auto&, auto&, auto& journal) { journal.resize(500); }, after, false},
      {"begun", [](auto&, auto&, auto& journal) { journal.resize(3); }, after, false},
      {"lost but for its length",
       [](auto&, auto&, auto& journal) { std::fill_n(journal.begin(), 512, uint8_t{0}); }, after,
       false},
      {"a diary",
       [](auto&, auto&, auto& journal) {
         journal = {'d', 'e', 'a', 'r'};
       },
       "absent", true, true},
      {"a store", [](auto&, auto& file, auto& journal) { journal = file; }, "absent", true, true},
      {"of another user",
       [](auto& image, auto&, auto&) {
         image.owners = {{image.names[kCrashFile], 7001}, {image.names[kCrashJournal], 7002}};
       },
       "absent", true, true},
      {"of the store's owner",
       [](auto& image, auto&, auto&) {
         image.owners = {{image.names[kCrashFile], 7001}, {image.names[kCrashJournal], 7001}};
       },
       before, false},
      {"zeros first", [](auto&, auto&, auto& journal) { std::fill_n(journal.begin(), 8, 0); },
       "absent", true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DiskImage image = interruptedUpdate(2);
    c.happen(image, image.inodes[image.names[kCrashFile]],
             image.inodes[image.names[kCrashJournal]]);
    SimulatedDisk disk(image);
    EXPECT_EQ(lookAt(disk), c.found);
    EXPECT_TRUE(!c.isRefused || disk.live().at(kCrashFile) == image.at(kCrashFile));
    CrashSession session(hostOver(disk));
    hx::Store* store = session.open(kCrashStore, kReplaceAll);
    ASSERT_EQ(store == nullptr, c.isKept);
    if (c.isKept) {
      EXPECT_EQ(session.refusal->error, c.name == std::string("of another user") ? EPERM : ESTALE);
      EXPECT_EQ(disk.live().inodes, image.inodes);
      continue;
    }
    session.append(store, "new", "bytes");
    session.close(store);
    EXPECT_EQ(lookAt(disk.synced()), "new=bytes;");
    EXPECT_EQ(disk.live().names.size(), 1u);
  }
}

// Whoever exchanges files between the look at one and its removal.
TEST(LinuxFaultTest, NothingIsRemovedButWhatWasLookedAt) {
  for (const char* const path : {kCrashJournal, kCrashFile}) {
    SimulatedDisk disk(interruptedUpdate(2));
    const int file = disk.open("/theirs", hxhost::OpenMode::kCreateNew);
    disk.writeAt(file, "dear", 4, 0);
    disk.close(file);
    const uint64_t theirs = disk.live().names.at("/theirs");
    disk.watch = [&](const DiskStep& step) {
      const bool isTime = step.operation == DiskOperation::kUnlink && step.path == path;
      if (isTime && disk.live().has("/theirs")) disk.rename("/theirs", path);
    };
    CrashSession session(hostOver(disk));
    session.open(kCrashStore, kReplaceAll);
    EXPECT_EQ(disk.live().names.at(path), theirs) << path;
  }
}

}  // namespace
}  // namespace hxtest
