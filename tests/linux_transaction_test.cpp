// Updates of store files as transactions: what they cost, how they fail, who is kept out, and whose
// journal is whose. The real module, over simulated disks and on the real one.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "host/linux/failure_log.h"
#include "tests/crash_states.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;
using hx::kCreate;
using hx::kRead;
using hx::kUpdate;
using hxhost::Durability;
using hxhost::HostOptions;

constexpr uint32_t kReplaceAll = kUpdate | kCreate | hx::kReplace;

const CrashScenario& appending() {
  return crashScenarios()[1];
}

// An update of the simulated store, and what was found before and what it leaves.
struct Update {
  DiskImage before = diskBefore(appending(), appending().firstCut);
  std::string textBefore = lookAt(before);
  std::string textAfter = lookAt(diskBefore(appending(), appending().firstCut + 1));

  static bool run(CrashSession& session) {
    return runCrashStep(session, appending().steps[appending().firstCut]);
  }

  // The disk when the process dies with the file's new bytes written and the journal still there.
  DiskImage interrupted() const {
    SimulatedDisk disk(before);
    DiskImage image;
    disk.watch = [&](DiskOperation operation, const std::string& path, int64_t, int64_t) {
      if (operation == DiskOperation::kUnlink && path == kCrashJournal) image = disk.live();
    };
    CrashSession session(hostOver(disk));
    run(session);
    return image;
  }
};

// The journal's bytes and its name; the file's bytes; and that the journal's name is gone.
TEST(LinuxTransactionTest, CostsFourSyncsAndNothingWhenNothingChanges) {
  const DiskImage before = diskBefore(appending(), 1);
  for (const bool changes : {true, false}) {
    for (const Durability durability : {Durability::full, Durability::none}) {
      SimulatedDisk disk(before);
      std::map<std::string, int> syncs;
      int writes = 0;
      disk.watch = [&](DiskOperation operation, const std::string& path, int64_t, int64_t) {
        const bool isSync =
            operation == DiskOperation::kSync || operation == DiskOperation::kSyncDirectory;
        if (isSync) ++syncs[path];
        writes += operation == DiskOperation::kWrite;
      };
      HostOptions options = hostOver(disk);
      options.durability = durability;
      CrashSession session(options);
      if (changes) {
        Update::run(session);
      } else {
        EXPECT_EQ(session.look(kCrashStore, kUpdate), lookAt(before));
      }
      std::map<std::string, int> expected;
      if (changes && durability == Durability::full) {
        expected = {{kCrashJournal, 1}, {"/", 2}, {kCrashFile, 1}};
      }
      EXPECT_EQ(syncs, expected);
      EXPECT_EQ(writes != 0, changes);
    }
  }
}

class LinuxFaultTest : public testing::Test {
 protected:
  // Runs the update on a disk with a fault, and looks at what is left when the fault is gone.
  // Whether the fault was met.
  bool survives(SimulatedDisk& disk) {
    CrashSession session(hostOver(disk, 4096));
    Update::run(session);
    const bool hasFired = disk.hasFired;
    const auto failure = session.host.takeFileFailure(kCrashFile);
    disk.failAt = -1;
    disk.failsEverAfter = false;
    disk.capacity = int64_t{1} << 60;
    const DiskImage left = disk.live();
    const std::string found = lookAt(disk);
    EXPECT_TRUE(found == update_.textBefore || found == update_.textAfter) << found.substr(0, 99);
    const bool wasTold = failure || session.host.takeFileFailure() || session.status != 0;
    EXPECT_TRUE(wasTold || found == update_.textAfter) << "an update was lost in silence";
    if (failure && failure->rolledBack) {
      EXPECT_EQ(found, update_.textBefore);
      EXPECT_EQ(left.files.count(kCrashJournal), 0u);
      EXPECT_EQ(left.files.at(kCrashFile).bytes, update_.before.files.at(kCrashFile).bytes);
      ++rolledBack_;
    }
    return hasFired;
  }

  const Update update_{};
  int rolledBack_ = 0;
};

TEST_F(LinuxFaultTest, AnErrorAtAnyOperationLeavesTheStoreBeforeOrAfter) {
  for (const int failure : {EIO, ENOSPC}) {
    for (const bool failsEverAfter : {false, true}) {
      for (int64_t failAt = 0;; ++failAt) {
        SCOPED_TRACE(failAt);
        SimulatedDisk disk(update_.before);
        disk.failAt = failAt;
        disk.failure = failure;
        disk.failsEverAfter = failsEverAfter;
        disk.fallsShort = failAt % 2 == 1;
        if (!survives(disk)) break;
      }
    }
  }
  EXPECT_GT(rolledBack_, 10);
}

TEST_F(LinuxFaultTest, ADiskThatFillsUpLeavesTheStoreAsItWas) {
  const int64_t used = std::ssize(update_.before.files.at(kCrashFile).bytes);
  for (int64_t room = 0; room < 24000; room += 97) {
    SCOPED_TRACE(room);
    SimulatedDisk disk(update_.before);
    disk.capacity = used + room;
    survives(disk);
  }
  EXPECT_GT(rolledBack_, 10);
}

TEST_F(LinuxFaultTest, ReadersRollBackOnlyWhatTheyMayWrite) {
  SimulatedDisk disk(update_.interrupted());
  disk.isReadOnly = true;
  EXPECT_EQ(lookAt(disk), "absent") << "the module's word for a file that does not open";
  EXPECT_EQ(disk.live().files.count(kCrashJournal), 1u);
  disk.isReadOnly = false;
  EXPECT_EQ(lookAt(disk), update_.textBefore);
  disk.isReadOnly = true;
  EXPECT_EQ(lookAt(disk), update_.textBefore);
}

TEST_F(LinuxFaultTest, AJournalIsAppliedToItsOwnFileOnly) {
  using Files = std::map<std::string, DiskImage::File>;
  const auto bytesOf = [](const DiskImage& image) {
    const auto file = image.files.find(kCrashFile);
    return file == image.files.end() ? DiskBytes() : file->second.bytes;
  };
  const struct {
    const char* name;
    std::function<void(Files&)> happen;
    std::string found;
    bool staysAsItIs;
  } cases[] = {
      {"nothing", [](Files&) {}, update_.textBefore, false},
      {"file replaced", [](Files& files) { files.at(kCrashFile).inode += 50; }, "absent", true},
      {"file cut", [](Files& files) { files.at(kCrashFile).bytes.resize(3000); }, "absent", true},
      {"file emptied", [](Files& files) { files.at(kCrashFile).bytes.clear(); }, "absent", false},
      {"file removed", [](Files& files) { files.erase(kCrashFile); }, "absent", true},
      {"other version", [](Files& files) { files.at(kCrashJournal).bytes[8] ^= 2; },
       update_.textAfter, false},
      {"header torn", [](Files& files) { files.at(kCrashJournal).bytes.resize(500); },
       update_.textAfter, false},
      {"empty journal", [](Files& files) { files.at(kCrashJournal).bytes.clear(); },
       update_.textAfter, false}};
  for (const auto& c : cases) {
    DiskImage image = update_.interrupted();
    c.happen(image.files);
    SimulatedDisk disk(image);
    EXPECT_EQ(lookAt(disk), c.found) << c.name;
    EXPECT_TRUE(!c.staysAsItIs || bytesOf(disk.live()) == bytesOf(image)) << c.name;
    CrashSession session(hostOver(disk));
    hx::Store* store = session.open(kCrashStore, kReplaceAll);
    ASSERT_NE(store, nullptr) << c.name;
    session.append(store, "new", "bytes");
    session.close(store);
    EXPECT_EQ(session.look(kCrashStore), "new=bytes;") << c.name;
    EXPECT_EQ(lookAt(disk.synced()), "new=bytes;") << c.name;
    EXPECT_EQ(disk.live().files.size(), 1u) << c.name;
  }
}

// Overwrites many blocks at once and at random, and behind the end, through a handle.
void overwriteMuch(hxhost::LinuxHost& host, DiskBytes& expected) {
  auto* io = static_cast<hx::FileIo*>(host.handle()->loadExtension(host.handle(), U"hxfio", 5, 0));
  hx::OpenParameters parameters{};
  parameters.accessMode = hx::HX_ACCESS_UPDATE;
  hx::FileHandle* file = io->open(io, kCrashStore.data(), std::ssize(kCrashStore), &parameters, 0,
                                  0, "hxfio", nullptr, 0);
  std::mt19937 random(5);
  for (int64_t i = 0; i < 12 && file != nullptr; ++i) {
    int64_t position = i == 0 ? 2000 : static_cast<int64_t>(random() % 45000);
    DiskBytes bytes(i == 0 ? 30000 : random() % 3000 + 1, static_cast<uint8_t>('a' + i));
    file->seek(file, &position, hx::HX_SEEK_START, 0);
    file->write(file, bytes.data(), std::ssize(bytes), 0, 0, 0);
    const auto end = static_cast<size_t>(position) + bytes.size();
    expected.resize(std::max(expected.size(), end));
    std::copy(bytes.begin(), bytes.end(), expected.begin() + position);
  }
  if (file != nullptr) file->close(file);
  io->head.destroy(io);
}

TEST(LinuxTransactionTest, EveryBlockOfALostUpdateComesBack) {
  DiskBytes before(40001);
  for (size_t i = 0; i < before.size(); ++i)
    before[i] = static_cast<uint8_t>(i * i / 7);
  for (const int64_t cacheBytes : {4096, 1 << 20}) {
    bool isOver = false;
    for (int64_t failAt = 0; !isOver; ++failAt) {
      SimulatedDisk disk({{{kCrashFile, {1, before}}}});
      disk.failAt = failAt;
      hxhost::LinuxHost host(hostOver(disk, cacheBytes));
      DiskBytes after = before;
      overwriteMuch(host, after);
      const auto failure = host.takeFileFailure();
      isOver = !disk.hasFired;
      lookAt(disk);
      const DiskBytes found = disk.live().files.at(kCrashFile).bytes;
      EXPECT_TRUE(found == before || found == after) << failAt;
      EXPECT_TRUE(failure || found == after) << failAt;
      EXPECT_TRUE(!failure || !failure->rolledBack || found == before) << failAt;
    }
  }
}

// Two instances, and other processes, on the real disk.
class LinuxFileLockTest : public testing::Test {
 protected:
  LinuxFileLockTest() {
    hx::Store* store = one_.open(path_, kUpdate | kCreate);
    one_.append(store, "item", "old");
    one_.close(store);
  }

  static HostOptions quick(int wait = 0) {
    HostOptions options;
    options.durability = Durability::none;
    options.lockWait = std::chrono::milliseconds(wait);
    return options;
  }

  const TemporaryDirectory directory_;
  const std::string file_ = directory_ / "store";
  const std::u32string path_{file_.begin(), file_.end()};
  CrashSession one_{quick()};
  CrashSession other_{quick()};
};

TEST_F(LinuxFileLockTest, ReadersShareAndUpdatersExclude) {
  for (const uint32_t first : {uint32_t{kRead}, uint32_t{kUpdate}}) {
    for (const uint32_t second : {uint32_t{kRead}, uint32_t{kUpdate}, kReplaceAll}) {
      hx::Store* held = one_.open(path_, first);
      hx::Store* wanted = other_.open(path_, second);
      EXPECT_EQ(wanted != nullptr, first == kRead && second == kRead);
      if (wanted == nullptr) {
        EXPECT_TRUE(other_.status ==
                        (second == kReplaceAll ? hx::HX_REMOVE_IN_USE : int32_t{hx::kNotFound}) ||
                    other_.status == hx::kFileNotOpen)
            << other_.status;
        EXPECT_EQ(other_.host.takeFileFailure()->error, EBUSY);
      } else {
        other_.close(wanted);
      }
      one_.close(held);
    }
  }
  EXPECT_EQ(other_.look(path_), "item=old;");
}

TEST_F(LinuxFileLockTest, OneInstanceGoesFromReadingToUpdatingAndOnAfterARefusal) {
  hx::Store* reading = one_.open(path_, kRead);
  hx::Store* guest = other_.open(path_, kRead);
  EXPECT_EQ(one_.open(path_, kUpdate), nullptr) << "somebody else reads";
  EXPECT_EQ(one_.status, hx::kFileNotOpen);
  EXPECT_EQ(one_.describe(reading), "item=old;");
  EXPECT_EQ(other_.open(path_, kUpdate), nullptr) << "the refused one reads still";
  other_.close(guest);
  hx::Store* updating = one_.open(path_, kUpdate);
  ASSERT_NE(updating, nullptr);
  EXPECT_EQ(other_.look(path_).substr(0, 6), "status") << "now it is locked";
  one_.append(updating, "item", "+new");
  one_.close(updating);
  one_.close(reading);
  EXPECT_EQ(other_.look(path_), "item=old+new;");
}

TEST_F(LinuxFileLockTest, TwoNamesOfOneFileExcludeEachOtherInOneInstance) {
  fs::create_hard_link(file_, directory_ / "alias");
  const std::string alias = directory_ / "alias";
  const std::u32string aliasPath(alias.begin(), alias.end());
  hx::Store* held = one_.open(path_, kRead);
  EXPECT_EQ(one_.open(aliasPath, kUpdate), nullptr);
  EXPECT_EQ(one_.look(aliasPath), "item=old;");
  one_.close(held);
}

TEST_F(LinuxFileLockTest, AnOpenWaitsAsLongAsTheHostWants) {
  CrashSession patient(quick(10000));
  hx::Store* held = one_.open(path_, kUpdate);
  std::thread closing([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    one_.close(held);
  });
  EXPECT_EQ(patient.look(path_, kUpdate), "item=old;");
  closing.join();
}

TEST_F(LinuxFileLockTest, AnotherProcessIsKeptOutUntilTheUpdaterDies) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    CrashSession session(quick());
    hx::Store* store = session.open(path_, kUpdate);
    session.append(store, "item", std::string(3000000, 'x'));
    if (::write(ends[1], "+", 1) == 1) ::pause();
    ::_exit(1);
  }
  char byte;
  ASSERT_EQ(::read(ends[0], &byte, 1), 1);
  EXPECT_EQ(one_.look(path_).substr(0, 6), "status");
  EXPECT_TRUE(fs::exists(file_ + "-journal"));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(one_.look(path_), "item=old;");
  EXPECT_FALSE(fs::exists(file_ + "-journal"));
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(LinuxFileLockTest, AClosedStoreIsLoadedAnewWhenItsFileIsAnother) {
  ASSERT_EQ(other_.look(path_), "item=old;");
  const std::string original = readFile(file_);
  const auto changeByOther = [&](const char* item) {
    hx::Store* store = one_.open(path_, kUpdate | kCreate);
    one_.append(store, item, "1");
    one_.close(store);
  };
  changeByOther("item");
  EXPECT_EQ(other_.look(path_), "item=old1;") << "changed";
  changeByOther("second");
  EXPECT_EQ(other_.look(path_), "item=old1;second=1;") << "changed again";
  fs::remove(file_);
  writeFile(file_, original);
  EXPECT_EQ(other_.look(path_), "item=old;") << "replaced";
  fs::resize_file(file_, fs::file_size(file_) - 10);
  EXPECT_NE(other_.look(path_), "item=old;") << "cut";
}

TEST_F(LinuxFileLockTest, TheJournalIsNobodysWayIntoAnotherFile) {
  fs::permissions(file_, fs::perms::owner_read | fs::perms::owner_write);
  fs::create_symlink(directory_ / "victim", file_ + "-journal");
  EXPECT_EQ(one_.open(path_, kUpdate), nullptr);
  EXPECT_FALSE(fs::exists(directory_ / "victim"));
  fs::remove(file_ + "-journal");
  hx::Store* store = one_.open(path_, kUpdate);
  one_.append(store, "item", std::string(3000000, 'x'));
  EXPECT_EQ(fs::status(file_ + "-journal").permissions(), fs::status(file_).permissions());
  one_.close(store);
}

TEST(FailureLogTest, KeepsTheLatestAndTellsTheOldestFirst) {
  hxhost::FailureLog log;
  for (int error = 1; error <= 70; ++error)
    log.record({error, "write", 0}, error % 2 == 0 ? "even" : "odd");
  const auto ticket = log.record({71, "write", 5}, "own");
  EXPECT_EQ(log.take()->error, 8);
  EXPECT_EQ(log.take("odd")->error, 9);
  EXPECT_EQ(log.take("odd")->error, 11);
  EXPECT_FALSE(log.take("none"));
  EXPECT_FALSE(log.take("own")->rolledBack) << "taken before the end of the update";
  log.conclude(ticket, "own", true);
  EXPECT_TRUE(log.take("own")->rolledBack) << "and told again";
}

}  // namespace
}  // namespace hxtest
