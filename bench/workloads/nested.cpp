// Stores in stores in stores.
#include <fmt/core.h>

#include "bench/cases.h"
#include "bench/source.h"

namespace bench {

namespace {

// What is made: `side` stores, in each as many, in each of these again as many, with an item each.
struct Cube {
  explicit Cube(std::size_t edge) : side(edge), items(edge * edge * edge) {}

  std::size_t side;
  SmallItems items;

  std::size_t innermost() const { return side * side * side; }
};

const std::string kItemName = "item";

void make(Writing& writing, const Cube& cube, std::size_t depth, std::size_t number) {
  if (depth == 3) {
    writing.put(kItemName, cube.items.bytes(number));
    return;
  }
  for (std::size_t i = 0; i < cube.side; ++i) {
    writing.enter(cube.items.name(i));
    make(writing, cube, depth + 1, number * cube.side + i);
    writing.leave();
  }
}

Tally tallyOf(const Cube& cube) {
  Tally tally;
  for (std::size_t count = cube.side; count <= cube.innermost(); count *= cube.side)
    for (std::size_t i = 0; i < count; ++i)
      tally.count(cube.items.name(0));
  for (std::size_t i = 0; i < cube.innermost(); ++i)
    tally.count(kItemName);
  return tally;
}

void verify(Engine& engine, const std::string& path, const Cube& cube) {
  std::uint64_t expected = 0;
  for (std::size_t i = 0; i < cube.innermost(); ++i)
    expected += hashOf(cube.items.bytes(i));
  std::uint64_t seen = 0;
  const auto session = engine.openSession(Sync::off);
  session->open(path, Shape::nested)->walk([&](Bytes bytes) { seen += hashOf(bytes); });
  require(seen == expected, "the bytes of the items differ");
}

void makeAndWalk(const Run& run, std::size_t side, Sync sync) {
  const Cube cube(side);
  const std::string path = run.freshPath("nested");
  run.measure([&] {
    const auto session = run.engine().openSession(sync);
    const auto writing = session->create(path, Shape::nested);
    make(*writing, cube, 0, 0);
    writing->commit();
  });
  Tally tally;
  run.measure([&] {
    const auto session = run.engine().openSession(Sync::off);
    tally = session->open(path, Shape::nested)->walk({});
  });
  require(tally == tallyOf(cube), "the members walked differ");
  if (run.verifies()) verify(run.engine(), path, cube);
}

}  // namespace

void addNestedCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t side = scale.nestedSide;
  const auto amount = static_cast<double>(side * side * side);
  const std::string stores = fmt::format("{} stores ", side * side * side);
  for (const Sync sync : {Sync::off, Sync::on}) {
    const std::string onOff = sync == Sync::on ? "on" : "off";
    cases.push_back(
        {'k',
         {{"k-made-" + onOff, stores + "made, sync " + onOff, kMicrosecondsEach, amount},
          {"k-walked-" + onOff, stores + "walked, made with sync " + onOff, kMicrosecondsEach,
           amount}},
         [=](const Run& run) { makeAndWalk(run, side, sync); }});
  }
}

}  // namespace bench
