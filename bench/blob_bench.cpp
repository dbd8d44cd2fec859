// How fast a store in memory becomes a blob, and a blob's items bytes, beside copies of as many
// bytes.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <hxcrate/crate.hpp>
#include <memory>
#include <string>
#include <vector>

#include "bench/race.h"

namespace {

using bench::makeBytes;
using bench::race;
using bench::require;

constexpr int kItems = 1000;
constexpr std::size_t kItemSize = 64 << 10;
constexpr std::size_t kAllBytes = kItems * kItemSize;

hxcrate::Store makeStore(hxcrate::Session& session) {
  const std::vector<std::byte> bytes = makeBytes(kItemSize);
  hxcrate::Store store = session.createInMemory("x.st");
  for (int i = 0; i < kItems; ++i)
    store.create(std::to_string(i)).write(bytes);
  return store;
}

// Memory fresh from the system costs a page fault for each of its pages, which is what fills it
// with zeros; a buffer that was written before does not.
void makeBlob(benchmark::State& state) {
  hxcrate::Session session;
  hxcrate::Store store = makeStore(session);
  const auto makeAndMeasure = [&] {
    const hxcrate::Blob blob = store.makeBlob();
    return blob.bytes().size();
  };
  const std::size_t size = makeAndMeasure();
  const std::vector<std::byte> source = makeBytes(size);
  std::vector<std::byte> target(size);
  const auto copy = [&](std::byte* to) {
    std::memcpy(to, source.data(), size);
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
  };
  const auto copyToZeroed = [&] {
    std::memset(target.data(), 0, size);
    benchmark::ClobberMemory();
    copy(target.data());
  };
  const auto copyToFresh = [&] {
    const std::unique_ptr<void, void (*)(void*)> fresh(std::calloc(1, size), std::free);
    copy(static_cast<std::byte*>(fresh.get()));
  };
  race(
      state, size, [] {}, [&] { require(makeAndMeasure() == size, "another size"); },
      {{"memcpy", [&] { copy(target.data()); }},
       {"zero_and_copy", copyToZeroed},
       {"calloc_and_copy", copyToFresh}});
}

void readAll(const hxcrate::Store& store, std::span<std::byte> target) {
  for (int i = 0; i < kItems; ++i) {
    hxcrate::Reader reader = store.read(std::to_string(i));
    const std::size_t begin = static_cast<std::size_t>(i) * kItemSize;
    require(reader.read(target.subspan(begin, kItemSize)) == kItemSize, "an item is short");
  }
}

void openAndReadBlob(benchmark::State& state) {
  hxcrate::Session making;
  const hxcrate::Blob blob = makeStore(making).makeBlob();
  const std::vector<std::byte> source = makeBytes(kAllBytes);
  std::vector<std::byte> target(kAllBytes);
  hxcrate::Session session;
  const std::uint64_t before = session.memoryUse().bytes;
  race(
      state, kAllBytes, [] {}, [&] { readAll(session.openBlob(blob.bytes(), "x.st"), target); },
      {{"memcpy", [&] {
          std::memcpy(target.data(), source.data(), kAllBytes);
          benchmark::ClobberMemory();
        }}});
  const hxcrate::Store opened = session.openBlob(blob.bytes(), "x.st");
  state.counters["blob_bytes"] = static_cast<double>(blob.bytes().size());
  state.counters["open_bytes"] = static_cast<double>(session.memoryUse().bytes - before);
  state.counters["peak_bytes"] = static_cast<double>(session.memoryUse().peakBytes - before);
}

BENCHMARK(makeBlob)->UseManualTime()->Iterations(21)->Unit(benchmark::kMillisecond);
BENCHMARK(openAndReadBlob)->UseManualTime()->Iterations(21)->Unit(benchmark::kMillisecond);

}  // namespace
