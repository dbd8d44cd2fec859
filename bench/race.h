// Measuring one piece of work beside others.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

constexpr int kRounds = 7;

inline void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

// Bytes that no compression shortens, the same every time.
inline std::vector<std::byte> makeBytes(std::size_t length) {
  std::vector<std::byte> bytes(length);
  unsigned state = 1;
  for (std::byte& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<std::byte>(state >> 24);
  }
  return bytes;
}

inline double secondsOf(const std::function<void()>& work) {
  const auto began = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

inline double medianOf(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Rival {
  std::string name;
  std::function<void()> work;
};

// Every round runs all, one right after the other and each round in another order, so that a ratio
// is of one moment; `prepare` runs unmeasured before each. Reports the median round: "MB/s" of
// `ours`, which moves `bytes`, and how many times as long as each rival it took.
inline void race(benchmark::State& state, std::size_t bytes, const std::function<void()>& prepare,
                 const std::function<void()>& ours, const std::vector<Rival>& rivals) {
  const std::size_t count = rivals.size() + 1;
  std::vector<std::vector<double>> ratios(rivals.size());
  std::vector<double> rates;
  std::size_t first = 0;
  for (auto _ : state) {
    std::vector<double> seconds(count);
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t runner = (first + i) % count;
      prepare();
      seconds[runner] = secondsOf(runner == rivals.size() ? ours : rivals[runner].work);
    }
    ++first;
    for (std::size_t i = 0; i < rivals.size(); ++i)
      ratios[i].push_back(seconds.back() / seconds[i]);
    rates.push_back(static_cast<double>(bytes) / seconds.back() / 1e6);
    state.SetIterationTime(seconds.back());
  }
  state.counters["MB/s"] = medianOf(rates);
  for (std::size_t i = 0; i < rivals.size(); ++i) {
    state.counters["times_" + rivals[i].name] = medianOf(ratios[i]);
  }
}

}  // namespace bench
