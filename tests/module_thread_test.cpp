// Several threads in one instance, and two instances on one file: what each reads is compared, and
// the thread sanitizer looks for races. `./dev threads` repeats this for as long as it is told.
#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "tests/module_world.h"

namespace hx::fake {
namespace {

constexpr int kRounds = 60;
constexpr uint32_t kMake = kUpdate | kCreate;

// What one thread works on: its store is open, `own` is a name that no other thread uses.
struct Place {
  ExtensionInstance* instance;
  Store* store;
  char32_t own;
};

using Work = void (*)(const Place& place);

void readItem(const Place& place, char32_t name, int32_t piece, void* conversion) {
  int32_t status = 1;
  ItemHandle* reader =
      place.instance->openItem(place.instance, place.store, &name, 1, kRead, &status);
  ASSERT_NE(reader, nullptr) << status;
  std::string bytes(static_cast<size_t>(piece), ' ');
  for (int64_t at = 0, step = conversion == nullptr ? 1 : 2; status == kOk;) {
    const uint32_t count = reader->item->read(reader, bytes.data(), piece, conversion, &status);
    for (uint32_t i = 0; i < count; ++i, at += step)
      ASSERT_EQ(bytes[i], byteAt(reader->item, at + step - 1));
  }
  EXPECT_EQ(status, kEndOfItem);
  EXPECT_EQ(reader->item->close(reader), 0);
}

void readShared(const Place& place) {
  readItem(place, U'a', 33, nullptr);
}

void readOwn(const Place& place) {
  readItem(place, place.own, 33, nullptr);
}

void appendOwn(const Place& place) {
  int32_t status = 1;
  ItemHandle* writer =
      place.instance->openItem(place.instance, place.store, &place.own, 1, kMake, &status);
  ASSERT_NE(writer, nullptr) << status;
  for (int piece = 0; piece < 5; ++piece) {
    std::string bytes(30, ' ');
    for (char& byte : bytes)
      byte = byteAt(writer->item, writer->position + (&byte - bytes.data()));
    EXPECT_EQ(writer->item->write(writer, bytes.data(), 30, &status), 30);
  }
  EXPECT_EQ(writer->item->close(writer), 0);
}

void createMembers(const Place& place) {
  static thread_local char32_t number = 0x100;
  const char32_t name[] = {place.own, ++number, U'/', U'x'};
  int32_t status = 1;
  Store* nested = place.instance->openStore(place.instance, place.store, name, 2, kMake, &status);
  ItemHandle* made = place.instance->openItem(place.instance, place.store, name, 4, kMake, &status);
  EXPECT_TRUE(made != nullptr && made->item->close(made) == 0);
  nested->closeStore(nested);
}

void listMembers(const Place& place) {
  char32_t name[64];
  int32_t length = 0, kind = 0, members = 0;
  while (place.store->getNextMember(place.store, name, length, name, &length, &kind) == kOk)
    ++members;
  EXPECT_GE(members, 1);
}

// Opens the store once more, converts, and leaves.
void convertShared(const Place& place) {
  int32_t status = 1;
  int argument = 0;
  Store* store = place.instance->openStore(place.instance, nullptr, U"f", 1, kRead, &status);
  ASSERT_NE(store, nullptr) << status;
  readItem({place.instance, store, place.own}, U'a', 50, &argument);
  store->closeStore(store);
}

void runTogether(const std::vector<std::pair<Place, Work>>& threads) {
  std::latch start(static_cast<int64_t>(threads.size()));
  std::vector<std::thread> running;
  for (const auto& [place, work] : threads) {
    running.emplace_back([&start, place = place, work = work] {
      start.arrive_and_wait();
      for (int round = 0; round < kRounds && !testing::Test::HasFailure(); ++round)
        work(place);
    });
  }
  for (std::thread& thread : running)
    thread.join();
}

const std::string kItems = "open x UC; page x 64; put x:a 900; put x:p 900; put x:q 500; close x;";

struct Crowd {
  const char* name;
  std::string script;
  std::string ref;
  std::vector<Work> works;  // of the threads p, q, r, s
};

TEST(Threads, WorkTogetherInOneStore) {
  for (const auto& [name, script, ref, works] : std::vector<Crowd>{
           {"readers of one item", "open x R", "x", {readShared, readShared, readShared}},
           {"readers of different items", "open x R", "x", {readOwn, readOwn, readShared}},
           {"a writer beside readers", "open x U", "x", {appendOwn, readShared, appendOwn}},
           {"in memory", "open m UCN; put m:a 9000", "m", {appendOwn, readShared, appendOwn}},
           {"a list beside creation", "open x U", "x", {createMembers, listMembers, createMembers}},
           {"all", "open x U", "x", {appendOwn, createMembers, listMembers, readShared}},
           {"needing converters",
            "foreign f x; open f R; close f",
            "x",
            {convertShared, convertShared, convertShared}}}) {
    SCOPED_TRACE(name);
    World w;
    w.run(kItems + script);
    std::vector<std::pair<Place, Work>> threads;
    for (const Work work : works)
      threads.push_back(
          {{w.instance, w.find(ref), static_cast<char32_t>(U'p' + threads.size())}, work});
    runTogether(threads);
    w.closeAll();
    checkImage(w.image("x"));
    EXPECT_EQ(w.host.liveConverters, 0);
  }
}

TEST(Threads, TwoInstancesReadOneFile) {
  World w;
  w.run(kItems + "open x R");
  ExtensionInstance* other = hx::hxcrate();
  int32_t status = 1;
  Store* store = other->openStore(other, nullptr, U"x", 1, kRead, &status);
  runTogether({{{w.instance, w.find("x"), U'p'}, readOwn},
               {{other, store, U'p'}, readOwn},
               {{other, store, U'q'}, readShared}});
  store->closeStore(store);
  other->destroy(other);
}

}  // namespace
}  // namespace hx::fake
