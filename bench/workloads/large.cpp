// Large items: written, read, and read by two threads at a time.
#include <fmt/core.h>

#include <thread>

#include "bench/cases.h"
#include "bench/workloads/large_items.h"

namespace bench {

namespace {

void write(Session& session, const std::string& path, const std::vector<std::string>& names,
           const Pieces& pieces) {
  const std::unique_ptr<Writing> writing = session.create(path, Shape::large);
  for (const std::string& name : names)
    writing->putPieces(name, pieces);
  writing->commit();
}

void readAll(Reading& reading, const std::string& name, const Pieces& pieces) {
  std::vector<std::byte> buffer(kPieceSize);
  require(reading.getPieces(name, buffer, {}) == pieces.totalBytes(), name + " is short");
}

void verify(Engine& engine, const std::string& path, const std::string& name,
            const Pieces& pieces) {
  std::vector<std::byte> buffer(kPieceSize);
  std::size_t index = 0;
  const auto compare = [&](Bytes piece) {
    require(index < pieces.count() && equal(piece, pieces.at(index)), "the bytes read differ");
    ++index;
  };
  const auto session = engine.openSession(Sync::off);
  session->open(path, Shape::large)->getPieces(name, buffer, compare);
  require(index == pieces.count(), "the item read is short");
}

void append(const Run& run, std::size_t bytes, Sync sync) {
  const Pieces pieces = piecesOf(bytes);
  const std::string path = run.freshPath("large");
  run.measure([&] {
    const auto session = run.engine().openSession(sync);
    write(*session, path, {"item"}, pieces);
  });
  if (run.verifies()) verify(run.engine(), path, "item", pieces);
}

void readBack(const Run& run, std::size_t bytes) {
  const Pieces pieces = piecesOf(bytes);
  const std::string path = keptItem(run, "large", pieces);
  if (run.verifies()) verify(run.engine(), path, "item", pieces);
  run.measure([&] {
    const auto session = run.engine().openSession(Sync::off);
    readAll(*session->open(path, Shape::large), "item", pieces);
  });
}

void readInThreads(const Run& run, std::size_t bytes) {
  const Threads threads = run.engine().info().threads;
  if (threads == Threads::none) throw Unsupported("the library is built for one thread");
  const Pieces pieces = piecesOf(bytes);
  const std::string path = run.keptFile("pair", [&](const std::string& to) {
    write(*run.engine().openSession(Sync::off), to, {"one", "two"}, pieces);
  });
  const auto shared = run.engine().openSession(Sync::off);
  const auto other = threads == Threads::ownSession ? run.engine().openSession(Sync::off) : nullptr;
  Session& second = other ? *other : *shared;
  const auto kept = shared->open(path, Shape::large);
  if (run.verifies()) {
    readAll(*kept, "one", pieces);
    readAll(*second.open(path, Shape::large), "two", pieces);
  }
  run.measure([&] { readAll(*kept, "one", pieces); });
  run.measure([&] {
    std::thread thread([&] { readAll(*second.open(path, Shape::large), "two", pieces); });
    readAll(*kept, "one", pieces);
    thread.join();
  });
}

}  // namespace

Pieces piecesOf(std::size_t bytes) {
  return {kPieceSize, bytes / kPieceSize};
}

std::string keptItem(const Run& run, const std::string& purpose, const Pieces& pieces) {
  return run.keptFile(purpose, [&](const std::string& to) {
    write(*run.engine().openSession(Sync::off), to, {"item"}, pieces);
  });
}

void addLargeCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t bytes = scale.largeBytes;
  const auto amount = static_cast<double>(bytes);
  const std::string size = fmt::format("{} MiB", bytes >> 20);
  for (const Sync sync : {Sync::off, Sync::on}) {
    const std::string onOff = sync == Sync::on ? "on" : "off";
    cases.push_back(
        {'a',
         {{"a-" + onOff, size + " appended, sync " + onOff, kMegabytesPerSecond, amount}},
         [=](const Run& run) { append(run, bytes, sync); }});
  }
  cases.push_back({'b', {{"b", size + " read", kMegabytesPerSecond, amount}}, [=](const Run& run) {
                     readBack(run, bytes);
                   }});
  const std::size_t each = scale.threadBytes;
  const auto eachAmount = static_cast<double>(each);
  const std::string eachSize = fmt::format("{} MiB", each >> 20);
  cases.push_back(
      {'i',
       {{"i-one", "one thread reads " + eachSize, kMegabytesPerSecond, eachAmount},
        {"i-two", "two threads read " + eachSize + " each", kMegabytesPerSecond, eachAmount * 2}},
       [=](const Run& run) { readInThreads(run, each); }});
}

}  // namespace bench
