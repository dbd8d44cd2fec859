// Who waits for a file that others have open, for how long, and who is next: processes that share
// one on the real disk, and threads of one file service. HX_SHARING_SECONDS says how long the
// processes are at it, and then figures are judged; otherwise, in a quarter of a second on whatever
// machine, only that everyone gets a turn.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <thread>
#include <vector>

#include "records/records.h"
#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using hxhost::Holder;
using hxhost::LinuxHost;
using hxhost::OpenRequest;
using hxhost::Purpose;
using Clock = std::chrono::steady_clock;

// What each of the processes tells the others and the test.
struct Tally {
  std::atomic<bool> isOver;
  std::array<std::atomic<int>, 8> done;
  std::atomic<int> timedOut;
};

// 0 for a short run.
int wantedSeconds() {
  const char* const wanted = std::getenv("HX_SHARING_SECONDS");
  return wanted != nullptr ? std::atoi(wanted) : 0;
}

class LinuxSharingTest : public testing::Test {
 protected:
  LinuxSharingTest() {
    hx::Store* store = session_.open(path_, hx::kUpdate | hx::kCreate);
    session_.append(store, "item", "old");
    session_.close(store);
  }
  ~LinuxSharingTest() override { ::munmap(&tally_, sizeof(tally_)); }

  // In a process of its own: opens and closes the store until the test is over, and updates or
  // reads it for so long.
  void start(size_t number, uint32_t flags, std::chrono::milliseconds reading) {
    if (::fork() != 0) return;
    CrashSession session(options_);
    session.terms.lockWait = wantedSeconds() > 0 ? 1s : 60s;
    while (!tally_.isOver) {
      hx::Store* store = session.open(path_, flags);
      if (store == nullptr && session.refusal->error != EBUSY) ::_exit(1);
      tally_.timedOut += store == nullptr;
      if (store == nullptr) continue;
      if (flags == hx::kUpdate) session.append(store, "item", "x");
      std::this_thread::sleep_for(reading);
      session.close(store);
      if (flags == hx::kUpdate && session.file->loss()) ::_exit(1);
      ++tally_.done[number];
    }
    ::_exit(0);
  }

  // Ends the processes after a while, in which each had a turn if it gets any; how many seconds
  // that took.
  double finish(int count) {
    const auto begin = Clock::now();
    std::this_thread::sleep_for(wantedSeconds() > 0 ? 1s * wantedSeconds() : 250ms);
    while (std::count(tally_.done.begin(), tally_.done.begin() + count, 0) > 0 &&
           Clock::now() - begin < 60s)
      std::this_thread::sleep_for(1ms);
    tally_.isOver = true;
    const std::chrono::duration<double> taken = Clock::now() - begin;
    for (int status = 0; count > 0; --count)
      EXPECT_TRUE(::wait(&status) > 0 && status == 0);
    return taken.count();
  }

  Tally& tally_ = *static_cast<Tally*>(
      ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const TemporaryDirectory directory_;
  const std::string file_ = directory_ / "store";
  const std::u32string path_{file_.begin(), file_.end()};
  const hxhost::HostOptions options_{1 << 20, nullptr, hxhost::Durability::none};
  CrashSession session_{options_};
};

TEST_F(LinuxSharingTest, AnUpdaterGetsItsTurnAmongReadersThatOverlap) {
  start(0, hx::kUpdate, 0ms);
  for (const size_t reader : {1u, 2u, 3u, 4u})
    start(reader, hx::kRead, 5ms);
  const double seconds = finish(5);
  EXPECT_EQ(tally_.timedOut, 0);
  EXPECT_GE(tally_.done[0], wantedSeconds() > 0 ? 25 * seconds : 1);
  std::cout << tally_.done[0] / seconds << " updates a second beside "
            << (tally_.done[1] + tally_.done[2] + tally_.done[3] + tally_.done[4]) / seconds
            << " readings of 5 ms by four readers\n";
}

TEST_F(LinuxSharingTest, UpdatersHaveEqualShares) {
  for (size_t updater = 0; updater < 8; ++updater)
    start(updater, hx::kUpdate, 0ms);
  finish(8);
  EXPECT_EQ(tally_.timedOut, 0);
  int sum = 0;
  for (const auto& done : tally_.done)
    sum += done;
  for (const auto& done : tally_.done) {
    const bool isFair = done * 16 >= sum && done * 4 <= sum;
    EXPECT_TRUE(wantedSeconds() > 0 ? isFair : done > 0) << done << " of " << sum;
    std::cout << done << " ";
  }
  std::cout << "updates by eight processes\n";
}

// By the request that the thread has already.
hx::Store* openIn(CrashSession& session, const std::u32string& path, uint32_t flags) {
  return session.module->openStore(session.module, nullptr, path.data(),
                                   static_cast<int32_t>(path.size()), flags, &session.status);
}

// What one thread asks of a session's files, without the module's lock.
bool reserve(CrashSession& session, const std::u32string& path, Purpose purpose) {
  return LinuxHost::reserve(session.module->fileExtension, path, purpose);
}

TEST_F(LinuxSharingTest, WhatIsReservedIsTheThreadsAlone) {
  const std::u32string absent = path_ + U"2";
  const std::tuple<std::u32string, Purpose, uint32_t, const char*> cases[] = {
      {path_, Purpose::kRead, hx::kRead, "item=old;"},
      {path_, Purpose::kUpdate, hx::kUpdate, "item=oldnew;"},
      {path_, Purpose::kReplace, hx::kUpdate | hx::kCreate | hx::kReplace, "item=new;"},
      {absent, Purpose::kUpdate, hx::kUpdate | hx::kCreate, "item=new;"},
      {absent, Purpose::kReplace, hx::kUpdate | hx::kCreate | hx::kReplace, "item=new;"}};
  for (const auto& [path, purpose, flags, found] : cases) {
    for (const bool isUsed : {false, true}) {
      SCOPED_TRACE(found);
      CrashSession other(options_);
      hx::Store* store = nullptr;
      {
        const OpenRequest request({});
        ASSERT_TRUE(reserve(session_, path, purpose));
        for (int i = 0; i < 2; ++i) {
          EXPECT_EQ(other.open(path, hx::kUpdate), nullptr);
          EXPECT_EQ(other.refusal->error, EBUSY);
          if (isUsed && i == 0) store = openIn(session_, path, flags);
        }
        EXPECT_EQ(store != nullptr, isUsed);
      }
      if (isUsed && purpose != Purpose::kRead) session_.append(store, "item", "new");
      if (isUsed) session_.close(store);
      EXPECT_TRUE(!isUsed || other.look(path) == found);
    }
    fs::remove(file_ + "2");
  }
}

// Readers and updaters of one file service, and of two: each update adds one to what the file
// holds.
TEST_F(LinuxSharingTest, NoUpdateOfAThreadIsLost) {
  constexpr int kRounds = 40;
  CrashFiles one(options_);
  CrashFiles two(options_);
  const std::u32string path = path_ + U"2";
  const auto work = [&](const CrashFiles& files, bool isUpdate) {
    for (int i = 0; i < kRounds; ++i) {
      const OpenRequest request({.lockWait = -1ms});
      const Purpose purpose = isUpdate ? Purpose::kUpdate : Purpose::kRead;
      if (!LinuxHost::reserve(files.io(), path, purpose)) continue;  // there is no file yet
      hx::FileHandle* file = files.open(path, isUpdate ? hx::HX_ACCESS_UPDATE : hx::HX_ACCESS_READ);
      ASSERT_NE(file, nullptr);
      int count = 0;
      hx::ReadRequest wanted{&count, sizeof(count)};
      file->read(file, &wanted, &wanted.count, 0, 0, 0);
      int64_t start = 0;
      ++count;
      if (isUpdate) file->seek(file, &start, hx::HX_SEEK_START, 0);
      if (isUpdate) file->write(file, &count, sizeof(count), 0, 0, 0);
      file->close(file);
      EXPECT_FALSE(request.file()->loss());
    }
  };
  std::vector<std::thread> threads;
  for (const CrashFiles* files : {&one, &two})
    for (const bool isUpdate : {true, true, false})
      threads.emplace_back(work, std::cref(*files), isUpdate);
  for (std::thread& thread : threads)
    thread.join();
  const std::string bytes = readFile(file_ + "2");
  ASSERT_EQ(bytes.size(), sizeof(int));
  EXPECT_EQ(*reinterpret_cast<const int*>(bytes.data()), 4 * kRounds);
}

TEST_F(LinuxSharingTest, TellsWhoIsInTheWay) {
  const std::tuple<bool, uint32_t, Purpose, Holder> cases[] = {
      {true, hx::kRead, Purpose::kUpdate, Holder::kReadersHere},
      {true, hx::kRead, Purpose::kReplace, Holder::kReadersHere},
      {true, hx::kUpdate, Purpose::kUpdate, Holder::kUpdaterHere},
      {true, hx::kUpdate, Purpose::kRead, Holder::kUpdaterHere},
      {false, hx::kRead, Purpose::kUpdate, Holder::kElsewhere},
      {false, hx::kUpdate, Purpose::kRead, Holder::kElsewhere}};
  const std::string alias = directory_ / "alias";
  fs::create_hard_link(file_, alias);
  for (const auto& [isHere, flags, purpose, holder] : cases) {
    CrashSession elsewhere(options_);
    CrashSession& holding = isHere ? session_ : elsewhere;
    hx::Store* held = holding.open(path_, flags);
    const OpenRequest request({});
    EXPECT_FALSE(reserve(session_, {alias.begin(), alias.end()}, purpose));
    EXPECT_EQ(request.holder(), holder);
    EXPECT_EQ(request.failure()->error, EBUSY);
    holding.close(held);
  }
}

TEST_F(LinuxSharingTest, WhoReadsByTwoNamesUpdatesByNeither) {
  fs::create_hard_link(file_, file_ + "2");
  hx::Store* held = session_.open(path_, hx::kRead);
  EXPECT_EQ(session_.open(path_ + U"2", hx::kUpdate), nullptr);
  EXPECT_EQ(session_.look(path_ + U"2"), "item=old;");
  EXPECT_EQ(session_.open(path_, hx::kUpdate), nullptr);
  session_.close(held);
}

TEST_F(LinuxSharingTest, ARequestSaysWhatMayBeThere) {
  const std::tuple<std::u32string, hxhost::OpenTerms, int> cases[] = {
      {path_, {.onlyNew = true}, EEXIST},
      {path_ + U"2", {.onlyExisting = true}, ENOENT},
      {path_, {.onlyExisting = true}, 0},
      {path_ + U"2", {.onlyNew = true}, 0}};
  for (const auto& [path, terms, error] : cases) {
    const OpenRequest request(terms);
    EXPECT_EQ(reserve(session_, path, Purpose::kUpdate), error == 0);
    EXPECT_EQ(request.failure() ? request.failure()->error : 0, error);
  }
  EXPECT_FALSE(fs::exists(file_ + "2"));
}

}  // namespace
}  // namespace hxtest
