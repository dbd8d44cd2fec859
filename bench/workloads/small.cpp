// Many small items: created, opened, read, enumerated, added to.
#include <fmt/core.h>

#include "bench/cases.h"
#include "bench/workloads/small_items.h"

namespace bench {

namespace {

constexpr std::size_t kReopened = 20;
constexpr std::size_t kAdded = 5;
constexpr std::size_t kManyItems = 1000000;  // 4 GB of file with pages of 4096 bytes

void create(const Run& run, std::size_t count, Sync sync) {
  requireMeasurable(run.engine(), count);
  const SmallItems items(count);
  const std::string path = run.freshPath("small");
  run.measure([&] {
    const auto session = run.engine().openSession(sync);
    createAll(*session, path, items);
  });
  if (run.verifies()) verifyAll(run.engine(), path, items);
}

void openAndGet(Session& session, const std::string& path, const SmallItems& items,
                std::size_t number) {
  std::byte out[kSmallSize * 2];
  require(session.open(path, Shape::small)->get(items.name(number), out) == kSmallSize,
          "an item is short");
}

void openAndReadOne(const Run& run, std::size_t count) {
  const SmallItems items(count);
  const std::vector<std::uint32_t> order = shuffled(count);
  const std::string path = keptItems(run, "items", items);
  std::unique_ptr<Session> session;
  run.measure([&] {
    session = run.engine().openSession(Sync::off);
    openAndGet(*session, path, items, order[0]);
  });
  run.measure([&] {
    for (std::size_t i = 1; i <= kReopened; ++i)
      openAndGet(*session, path, items, order[i]);
  });
}

void readAllByName(const Run& run, std::size_t count) {
  const SmallItems items(count);
  const std::vector<std::uint32_t> order = shuffled(count);
  const std::string path = keptItems(run, "items", items);
  const auto session = run.engine().openSession(Sync::off);
  const auto reading = session->open(path, Shape::small);
  run.measure([&] { getAll(*reading, items, order); });
}

void enumerateAll(const Run& run, std::size_t count) {
  const SmallItems items(count);
  const std::string path = keptItems(run, "items", items);
  const auto session = run.engine().openSession(Sync::off);
  const auto reading = session->open(path, Shape::small);
  Tally tally;
  run.measure([&] { tally = reading->enumerate(); });
  require(tally == items.tally(), "the names enumerated differ");
}

void listSizes(const Run& run, std::size_t count) {
  const SmallItems items(count);
  const std::string path = keptItems(run, "items", items);
  const auto session = run.engine().openSession(Sync::off);
  const auto reading = session->open(path, Shape::small);
  require(reading->listSizes() == count * kSmallSize, "the sizes listed differ");
  run.measure([&] { reading->listSizes(); });
}

void addOne(Session& session, const std::string& path, const std::string& name, Bytes bytes) {
  const auto writing = session.update(path);
  writing->put(name, bytes);
  writing->commit();
}

// The store that is added to is one of its own for each setting and gets an item more each time;
// the names of those begin with another letter.
void addToStore(const Run& run, std::size_t count, Sync sync) {
  const SmallItems items(count);
  const std::string stem = fmt::format("x{}-{}-", ::time(nullptr), ::getpid());
  const std::string path = keptItems(run, sync == Sync::on ? "added-synced" : "added", items);
  addOne(*run.engine().openSession(sync), path, stem + "first", items.bytes(0));
  std::unique_ptr<Session> session;
  run.measure([&] {
    session = run.engine().openSession(sync);
    addOne(*session, path, stem + "fresh", items.bytes(0));
  });
  run.measure([&] {
    for (std::size_t i = 0; i < kAdded; ++i)
      addOne(*session, path, stem + std::to_string(i), items.bytes(i));
  });
  session.reset();
  std::byte out[kSmallSize * 2];
  const auto reader = run.engine().openSession(Sync::off);
  require(reader->open(path, Shape::small)->get(stem + "4", out) == kSmallSize,
          "the item added is not there");
}

void addCreateCases(const Scale& scale, std::vector<Case>& cases) {
  for (const std::size_t count : scale.created) {
    for (const Sync sync : {Sync::off, Sync::on}) {
      const std::string onOff = sync == Sync::on ? "on" : "off";
      cases.push_back(
          {'c',
           {{fmt::format("c-{}-{}", count, onOff), fmt::format("{} created, sync {}", count, onOff),
             kMillionsPerSecond, static_cast<double>(count)}},
           [=](const Run& run) { create(run, count, sync); },
           count >= kManyItems});
    }
  }
}

void addAddCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t count = scale.stored;
  for (const Sync sync : {Sync::off, Sync::on}) {
    const std::string onOff = sync == Sync::on ? "on" : "off";
    const std::string title = fmt::format("added to {}, sync {}", count, onOff);
    cases.push_back({'g',
                     {{"g-fresh-" + onOff, title + ", fresh session", kMilliseconds, 1},
                      {"g-cached-" + onOff, title + ", cached", kMilliseconds, double{kAdded}}},
                     [=](const Run& run) { addToStore(run, count, sync); }});
  }
}

}  // namespace

void addSmallCases(const Scale& scale, std::vector<Case>& cases) {
  addCreateCases(scale, cases);
  const std::size_t count = scale.stored;
  const auto amount = static_cast<double>(count);
  const std::string of = fmt::format(" of {}", count);
  cases.push_back({'d',
                   {{"d-first", "first open, one item" + of + " read", kNanosecondsEach, amount},
                    {"d-cached", "opened again, one item" + of + " read", kMicrosecondsEach,
                     double{kReopened}}},
                   [=](const Run& run) { openAndReadOne(run, count); }});
  cases.push_back({'e',
                   {{"e", "all" + of + " read by name", kMillionsPerSecond, amount}},
                   [=](const Run& run) { readAllByName(run, count); }});
  cases.push_back({'f',
                   {{"f", "all" + of + " names", kMillionsPerSecond, amount}},
                   [=](const Run& run) { enumerateAll(run, count); }});
  cases.push_back({'o',
                   {{"o", "sizes of all" + of, kMicrosecondsEach, amount}},
                   [=](const Run& run) { listSizes(run, count); }});
  addAddCases(scale, cases);
}

}  // namespace bench
