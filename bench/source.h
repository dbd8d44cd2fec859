// What is put into every engine: names, and bytes that no compression shortens.
#pragma once

#include <fmt/core.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/engine.h"

namespace bench {

constexpr std::size_t kPieceSize = 64 << 10;
constexpr std::size_t kSmallSize = 100;

// Small items by their number. Their names rise with it.
class SmallItems {
 public:
  explicit SmallItems(std::size_t count) : pieces_(kSmallSize, count) {
    names_.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
      names_.push_back(nameOf(i));
  }

  static std::string nameOf(std::size_t number) { return fmt::format("i{:08}", number); }

  std::size_t count() const { return names_.size(); }
  const std::string& name(std::size_t number) const { return names_[number]; }
  Bytes bytes(std::size_t number) const { return pieces_.at(number); }

  Tally tally() const {
    Tally tally;
    for (const std::string& name : names_)
      tally.count(name);
    return tally;
  }

 private:
  Pieces pieces_;
  std::vector<std::string> names_;
};

// Every number below `count` once, in an order that is random and the same every time.
inline std::vector<std::uint32_t> shuffled(std::size_t count) {
  std::vector<std::uint32_t> order(count);
  std::uint64_t state = 1;
  for (std::size_t i = 0; i < count; ++i) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    const std::size_t other = (state >> 33) % (i + 1);
    order[i] = order[other];
    order[other] = static_cast<std::uint32_t>(i);
  }
  return order;
}

inline bool equal(Bytes left, Bytes right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

// A hash of the bytes; sums of it tell whether the same items were seen in any order.
inline std::uint64_t hashOf(Bytes bytes) {
  std::uint64_t hash = 14695981039346656037u;
  for (std::byte byte : bytes)
    hash = (hash ^ static_cast<std::uint8_t>(byte)) * 1099511628211u;
  return hash;
}

}  // namespace bench
