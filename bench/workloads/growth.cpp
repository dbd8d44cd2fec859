// What one item costs in ever larger stores.
#include "bench/cases.h"
#include "bench/workloads/small_items.h"

namespace bench {

namespace {

constexpr std::size_t kFound = 100000;

void grow(const Run& run, std::size_t count) {
  const SmallItems items(count);
  std::vector<std::uint32_t> order = shuffled(count);
  order.resize(std::min(count, kFound));
  const std::string path = run.freshPath("grown");
  run.measure([&] {
    const auto session = run.engine().openSession(Sync::off);
    createAll(*session, path, items);
  });
  if (run.verifies()) verifyAll(run.engine(), path, items);
  const auto session = run.engine().openSession(Sync::off);
  const auto reading = session->open(path, Shape::small);
  run.measure([&] { getAll(*reading, items, order); });
  run.measure([&] { reading->enumerate(); });
}

}  // namespace

void addGrowthCases(const Scale& scale, std::vector<Case>& cases) {
  for (const std::size_t count : scale.grown) {
    const std::string number = std::to_string(count);
    const auto amount = static_cast<double>(count);
    const auto found = static_cast<double>(std::min(count, kFound));
    cases.push_back(
        {'n',
         {{"n-create-" + number, "an item created, of " + number, kNanosecondsEach, amount},
          {"n-find-" + number, "an item found and read, of " + number, kNanosecondsEach, found},
          {"n-enumerate-" + number, "a name enumerated, of " + number, kNanosecondsEach, amount}},
         [=](const Run& run) { grow(run, count); }});
  }
}

}  // namespace bench
