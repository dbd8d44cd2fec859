// One large item read at any place, by one thread and by two that share it.
#include <fmt/core.h>

#include <functional>
#include <thread>

#include "bench/cases.h"
#include "bench/workloads/large_items.h"

namespace bench {

namespace {

constexpr std::size_t kRandomRead = 4096;

void readForward(const Anywhere& item, const Pieces& pieces) {
  std::vector<std::byte> buffer(kPieceSize);
  for (std::size_t i = 0; i < pieces.count(); ++i)
    require(item.readAt(i * kPieceSize, buffer) == kPieceSize, "a read fell short");
}

void verify(const Anywhere& item, const Pieces& pieces) {
  std::vector<std::byte> buffer(kPieceSize);
  for (std::size_t i = pieces.count(); i-- > 0;)
    require(item.readAt(i * kPieceSize, buffer) == kPieceSize && equal(buffer, pieces.at(i)),
            "the bytes read differ");
}

// Where each thread reads; no place twice as long as the item has enough of them.
class RandomPlaces {
 public:
  RandomPlaces(std::size_t bytes, std::size_t reads)
      : order_(shuffled(bytes / kRandomRead)), reads_(reads) {}

  void read(const Anywhere& item, std::size_t thread) const {
    std::byte buffer[kRandomRead];
    for (std::size_t i = 0; i < reads_; ++i) {
      const std::size_t place = order_[(thread * reads_ + i) % order_.size()];
      require(item.readAt(place * kRandomRead, buffer) == kRandomRead, "a read fell short");
    }
  }

 private:
  std::vector<std::uint32_t> order_;
  std::size_t reads_;
};

void inTwoThreads(const std::function<void(std::size_t thread)>& work) {
  std::thread other([&] { work(1); });
  work(0);
  other.join();
}

void readCalls(const Run& run, std::size_t bytes) {
  const Pieces pieces = piecesOf(bytes);
  const std::string path = keptItem(run, "large", pieces);
  const auto opened = [&](const std::function<void(const Anywhere&)>& read) {
    const auto session = run.engine().openSession(Sync::off);
    const auto reading = session->open(path, Shape::large);
    read(*reading->openAnywhere("item"));
  };
  if (run.verifies()) opened([&](const Anywhere& item) { verify(item, pieces); });
  run.measure([&] { opened([&](const Anywhere& item) { readForward(item, pieces); }); });
  run.measure([&] {
    opened([&](const Anywhere& item) {
      inTwoThreads([&](std::size_t) { readForward(item, pieces); });
    });
  });
}

void readAtRandom(const Run& run, std::size_t bytes, std::size_t reads) {
  const std::string path = keptItem(run, "huge", piecesOf(bytes));
  const RandomPlaces places(bytes, reads);
  const auto session = run.engine().openSession(Sync::off);
  const auto reading = session->open(path, Shape::large);
  const auto item = reading->openAnywhere("item");
  std::byte last[2];
  require(item->readAt(bytes - 1, last) == 1, "the item's length differs");
  run.measure([&] { places.read(*item, 0); });
  run.measure([&] { inTwoThreads([&](std::size_t thread) { places.read(*item, thread); }); });
}

}  // namespace

void addAnywhereCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t bytes = scale.largeBytes;
  const auto amount = static_cast<double>(bytes);
  const std::string size = fmt::format("{} MiB", bytes >> 20);
  cases.push_back({'m',
                   {{"m-one", size + " in calls of 64 KiB", kMegabytesPerSecond, amount},
                    {"m-two", "by two threads, each all of it", kMegabytesPerSecond, amount * 2}},
                   [=](const Run& run) { readCalls(run, bytes); }});
  const std::size_t huge = scale.randomBytes;
  const std::size_t reads = scale.randomReads;
  const std::string title = fmt::format("4 KiB at random places of {} MiB", huge >> 20);
  cases.push_back({'m',
                   {{"m-random-one", title, kMicrosecondsEach, static_cast<double>(reads)},
                    {"m-random-two", "the same by two threads", kMicrosecondsEach,
                     static_cast<double>(reads * 2)}},
                   [=](const Run& run) { readAtRandom(run, huge, reads); }});
}

}  // namespace bench
