// How fast items go in and out, beside the plain file that the same bytes would be.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <hxcrate/crate.hpp>
#include <string>
#include <vector>

#include "bench/race.h"

namespace {

namespace fs = std::filesystem;

using bench::makeBytes;
using bench::race;
using bench::require;

constexpr std::size_t kItemSize = std::size_t{256} << 20;
constexpr std::size_t kCallSize = 64 << 10;
constexpr int kSmallItems = 10000;
constexpr std::size_t kSmallSize = 100;

// Under the directory that HX_BENCH_DIR names, or the system's for temporary files.
class Directory {
 public:
  Directory() {
    const char* wanted = std::getenv("HX_BENCH_DIR");
    std::string name = (wanted != nullptr ? fs::path(wanted) : fs::temp_directory_path()).string();
    name += "/hxbench-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no directory to measure in");
    path_ = name;
  }
  ~Directory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

using hxcrate::Durability;

void writePlain(const std::string& path, const std::vector<std::byte>& bytes,
                Durability durability = Durability::none) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  require(file >= 0, "open for writing");
  for (std::size_t done = 0; done < kItemSize; done += kCallSize) {
    require(::write(file, bytes.data(), kCallSize) == static_cast<ssize_t>(kCallSize), "write");
  }
  require(durability == Durability::none || ::fsync(file) == 0, "sync");
  require(::close(file) == 0, "close");
}

void readPlain(const std::string& path, std::vector<std::byte>& buffer) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  require(file >= 0, "open for reading");
  std::size_t done = 0;
  while (const ssize_t count = ::pread(file, buffer.data(), kCallSize, static_cast<off_t>(done))) {
    require(count > 0, "read");
    done += static_cast<std::size_t>(count);
  }
  require(done == kItemSize, "the plain file is shorter than it was written");
  ::close(file);
}

hxcrate::Session openSession(Durability durability) {
  hxcrate::SessionOptions options;
  options.durability = durability;
  return hxcrate::Session(options);
}

void writeItem(const std::string& path, const std::vector<std::byte>& bytes,
               Durability durability = Durability::none) {
  hxcrate::Session session = openSession(durability);
  hxcrate::Store store = session.open(path, hxcrate::Mode::replace);
  hxcrate::Writer writer = store.create("item");
  for (std::size_t done = 0; done < kItemSize; done += kCallSize)
    writer.write(bytes);
  writer.close();
  store.close();
}

void readItem(const std::string& path, std::vector<std::byte>& buffer) {
  hxcrate::Session session;
  const hxcrate::Store store = session.open(path);
  hxcrate::Reader reader = store.read("item");
  std::size_t done = 0;
  while (const std::size_t count = reader.read(buffer))
    done += count;
  require(done == kItemSize, "the item is shorter than it was written");
}

void writeLargeItem(benchmark::State& state) {
  const Directory directory;
  const std::vector<std::byte> bytes = makeBytes(kCallSize);
  const auto removeBoth = [&] {
    fs::remove(directory.file("plain"));
    fs::remove(directory.file("x.st"));
  };
  // With a wait for the disk on both sides, or on neither.
  const Durability durability = state.range(0) != 0 ? Durability::full : Durability::none;
  race(state, kItemSize, removeBoth, [&] { writeItem(directory.file("x.st"), bytes, durability); },
       {{"plain", [&] { writePlain(directory.file("plain"), bytes, durability); }}});
}

void readLargeItem(benchmark::State& state) {
  const Directory directory;
  std::vector<std::byte> bytes = makeBytes(kCallSize);
  writePlain(directory.file("plain"), bytes);
  writeItem(directory.file("x.st"), bytes);
  race(
      state, kItemSize, [] {}, [&] { readItem(directory.file("x.st"), bytes); },
      {{"plain", [&] { readPlain(directory.file("plain"), bytes); }}});
}

void createSmallItems(const std::string& path, Durability durability = Durability::none) {
  const std::vector<std::byte> bytes = makeBytes(kSmallSize);
  hxcrate::Session session = openSession(durability);
  hxcrate::Store store = session.open(path, hxcrate::Mode::replace);
  for (int i = 0; i < kSmallItems; ++i)
    store.create(std::to_string(i)).write(bytes);
  store.close();
}

void countItems(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kSmallItems);
}

void createManyItems(benchmark::State& state) {
  const Directory directory;
  for (auto _ : state)
    createSmallItems(directory.file("x.st"),
                     state.range(0) != 0 ? Durability::full : Durability::none);
  countItems(state);
}

void enumerateManyItems(benchmark::State& state) {
  const Directory directory;
  createSmallItems(directory.file("x.st"));
  hxcrate::Session session;
  const hxcrate::Store store = session.open(directory.file("x.st"));
  for (auto _ : state) {
    int count = 0;
    for ([[maybe_unused]] const hxcrate::Member& member : store.members())
      ++count;
    require(count == kSmallItems, "items are missing");
  }
  countItems(state);
}

void readManyItems(benchmark::State& state) {
  const Directory directory;
  createSmallItems(directory.file("x.st"));
  for (auto _ : state) {
    hxcrate::Session session;
    const hxcrate::Store store = session.open(directory.file("x.st"));
    for (int i = 0; i < kSmallItems; ++i) {
      require(store.read(std::to_string(i)).readAll().size() == kSmallSize, "an item is short");
    }
  }
  countItems(state);
}

// The most memory that the module holds while an item of this length is written and read.
void holdPages(benchmark::State& state) {
  const Directory directory;
  const auto length = static_cast<std::size_t>(state.range(0));
  std::vector<std::byte> bytes = makeBytes(kCallSize);
  hxcrate::MemoryUse writing{};
  hxcrate::MemoryUse reading{};
  for (auto _ : state) {
    {
      hxcrate::Session session;
      hxcrate::Store store = session.open(directory.file("x.st"), hxcrate::Mode::replace);
      hxcrate::Writer writer = store.create("item");
      for (std::size_t done = 0; done < length; done += kCallSize)
        writer.write(bytes);
      writing = session.memoryUse();
    }
    hxcrate::Session session;
    const hxcrate::Store store = session.open(directory.file("x.st"));
    hxcrate::Reader reader = store.read("item");
    while (reader.read(bytes) > 0)
      continue;
    reading = session.memoryUse();
  }
  state.counters["peak_writing_bytes"] = static_cast<double>(writing.peakBytes);
  state.counters["peak_reading_bytes"] = static_cast<double>(reading.peakBytes);
}

BENCHMARK(writeLargeItem)
    ->ArgName("synced")
    ->DenseRange(0, 1)
    ->UseManualTime()
    ->Iterations(bench::kRounds)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(readLargeItem)
    ->UseManualTime()
    ->Iterations(bench::kRounds)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(createManyItems)
    ->ArgName("synced")
    ->DenseRange(0, 1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(enumerateManyItems)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(readManyItems)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(holdPages)->Arg(1 << 20)->Arg(256 << 20)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
