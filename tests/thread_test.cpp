// Several threads in one store, and sessions of their own on its file: what each reads is compared,
// and the thread sanitizer looks for races. `./dev threads` repeats this for as long as it is told.
#include <gtest/gtest.h>

#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <latch>
#include <random>
#include <thread>

#include "item/item_view.h"
#include "module/entry.h"
#include "records/status.h"
#include "tests/crash_session.h"
#include "tests/module_image.h"
#include "tests/temporary_directory.h"
#include "tests/transcoded_file.h"

namespace hxcrate {
namespace {

constexpr int kRounds = 60;

// The bytes of an item from one place to another.
std::string bytesOf(const std::string& name, std::int64_t from, std::int64_t to) {
  std::string bytes;
  for (; from < to; ++from)
    bytes += static_cast<char>('a' + (from + from / 7 + name[0]) % 26);
  return bytes;
}

void append(Store& store, const std::string& name, std::int64_t count) {
  Writer writer = store.append(name);
  writer.write(bytesOf(name, writer.position(), writer.position() + count));
}

void readItem(const Store& store, const std::string& name) {
  Reader reader = store.read(name);
  char piece[33];
  for (std::int64_t at = 0; at < reader.size(); at = reader.position()) {
    const std::size_t count = reader.read(std::as_writable_bytes(std::span(piece)));
    ASSERT_EQ(std::string(piece, count), bytesOf(name, at, reader.position()));
  }
}

// What one thread works on: `own` is a name that no other thread uses.
struct Place {
  Session& session;
  Store& store;
  std::string own;
};

using Work = void (*)(const Place& place);  // in a round

void readShared(const Place& place) {
  readItem(place.store, "a");
}

void readOwn(const Place& place) {
  readItem(place.store, place.own);
}

void readElsewhere(const Place& place) {
  static thread_local Session elsewhere;
  readItem(elsewhere.open(place.store.path()), "a");
}

void appendOwn(const Place& place) {
  for (int piece = 0; piece < 5; ++piece)
    append(place.store, place.own, 30);
}

void createMembers(const Place& place) {
  static thread_local int number = 0;
  const std::string name = place.own + std::to_string(++number);
  const Store nested = place.store.createStore(name);
  append(place.store, name + "/x", 10);
}

void listMembers(const Place& place) {
  const MemberRange members = place.store.members();
  EXPECT_GE(std::ranges::distance(members.begin(), members.end()), 3);
}

void expectConverted(const Store& foreign) {
  const std::string bytes = bytesOf("a", 0, 900);
  const std::vector<std::int16_t> numbers = foreign.read("a").readArray<std::int16_t>();
  ASSERT_EQ(numbers.size(), bytes.size() / 2);
  for (std::size_t i = 0; i < numbers.size(); ++i)
    ASSERT_EQ(numbers[i], bytes[2 * i] << 8 | bytes[2 * i + 1]);
}

// Opens the file that the other machine wrote once more, converts, and leaves.
void convertShared(const Place& place) {
  expectConverted(place.session.open(place.store.path()));
}

// Its image is a blob, which each opens for itself.
void convertBlob(const Place& place) {
  const std::string image = hxtest::readFile(place.store.path());
  expectConverted(place.session.openBlob(std::as_bytes(std::span(image)), "b"));
}

class Threads : public testing::Test {
 protected:
  static Store fill(Store store) {
    for (const char* name : {"a", "p", "q"})
      append(store, name, 900);
    return store;
  }

  // The threads are called p, q, r and s.
  void runTogether(Store store, const std::vector<Work>& works) {
    std::latch start(std::ssize(works));
    std::vector<std::thread> running;
    for (const Work work : works) {
      const Place place{session_, store, std::string(1, "pqrs"[running.size()])};
      running.emplace_back([&start, work, place] {
        start.arrive_and_wait();
        for (int round = 0; round < kRounds && !testing::Test::HasFailure(); ++round)
          work(place);
      });
    }
    for (std::thread& thread : running)
      thread.join();
    for (const char* name : {"a", "p", "q"})
      readItem(store, name);
    store.close();
    const std::string file = hxtest::readFile(path_);
    hx::fake::checkImage({file.begin(), file.end()});
  }

  const hxtest::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "x.st";
  Session session_;
};

TEST_F(Threads, WorkTogetherInOneStore) {
  const std::string foreign = directory_ / "foreign.st";
  fill(session_.open(path_, Mode::create, {.pageSize = 64})).close();
  hxtest::transcodeFile(path_, "hxmok1/be/utf-8", foreign);
  runTogether(session_.open(path_), {readShared, readShared, readShared});
  runTogether(session_.open(path_), {readOwn, readOwn, readShared});
  runTogether(session_.open(path_), {readOwn, readElsewhere, readElsewhere});
  runTogether(session_.open(path_, Mode::update), {appendOwn, readShared, appendOwn});
  runTogether(fill(session_.createInMemory("m", 64)),
              {appendOwn, readShared, appendOwn, listMembers});
  runTogether(session_.open(path_, Mode::update),
              {appendOwn, createMembers, createMembers, listMembers});
  runTogether(session_.open(foreign), {convertShared, convertShared, convertBlob, convertBlob});
}

void readAnywhere(hx::ItemView* view, const std::string& expected, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<char> bytes(3000);
  for (int i = 0; i < 100; ++i) {
    const auto offset = static_cast<std::size_t>(random() % expected.size());
    std::int32_t status = hx::kOk;
    const auto count = static_cast<std::size_t>(
        view->readAt(view, static_cast<std::int64_t>(offset), bytes.data(), 3000, &status));
    ASSERT_EQ(expected.compare(offset, count, bytes.data(), count), 0);
    const bool isAll = offset + count == expected.size() || count == bytes.size();
    ASSERT_TRUE(isAll || status == hx::kFileNotOpen) << status;
  }
}

// Threads read through one view while its store goes on to be updated, is closed and opened again.
TEST(ViewThreads, AViewIsReadWhileItsFileIsTakenAway) {
  const hxtest::TemporaryDirectory folder;
  const std::string path = folder / "store";
  const std::u32string wide(path.begin(), path.end());
  const std::string expected = bytesOf("a", 0, 100000);
  {
    Session session({.pageSize = 512});
    session.open(path, Mode::create).create("a").write(expected);
  }
  hxtest::CrashSession module({});
  for (unsigned round = 0; round < 20; ++round) {
    hx::Store* store = module.open(wide, hx::kRead);
    std::int32_t status = hx::kOk;
    hx::ItemView* view = module.module->openView(module.module, store, U"a", 1, &status);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 8; ++i)
      threads.emplace_back([&, i] { readAnywhere(view, expected, 8 * round + i); });
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(module.open(wide, hx::kUpdate), store);
      store->closeStore(store);
      store->closeStore(store);
      EXPECT_EQ(module.open(wide, hx::kRead), store);
    }
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(view->close(view), 0);
    store->closeStore(store);
  }
}

}  // namespace
}  // namespace hxcrate
