#include "size_forecast.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "hxcrate/session.hpp"

namespace tool {

namespace {

// Bytes in the file.
constexpr std::int64_t kHeader = 40;
constexpr std::int64_t kMember = 96;
constexpr std::int64_t kPageRecord = 24;

// What is read behind so many pages of an item costs, a page, as much as so many bytes more.
constexpr std::int64_t kCheapPages = 1000;
constexpr std::int64_t kReadingCost = 700;

// Smaller pages cost reading time and save little; larger ones cost every open item memory.
constexpr std::int32_t kSmallestPage = 64;
constexpr std::int32_t kLargestPage = 65536;
constexpr std::int32_t kStepsPerOctave = 4;
constexpr std::int32_t kFineSteps = 128;

// A full page has a successor, so an item of n full pages takes n + 1. In a blob the record at an
// item's head stands apart, and an item of no bytes has a page too.
std::int64_t itemSpace(std::int64_t size, std::int64_t pageSize, bool isBlob) {
  const std::int64_t pages = (size / pageSize + 1) * (kPageRecord + pageSize);
  if (isBlob) return kPageRecord + pages;
  return size == 0 ? kPageRecord : pages;
}

std::int64_t readingCost(std::int64_t size, std::int64_t pageSize) {
  return kReadingCost * std::max<std::int64_t>(size / pageSize + 1 - kCheapPages, 0);
}

template <typename Counts, typename Measure>
std::int64_t sumOver(const Counts& counts, Measure measure) {
  std::int64_t total = 0;
  for (const auto& [size, count] : counts)
    total += count * measure(size);
  return total;
}

}  // namespace

void SizeForecast::addItem(std::int64_t size) {
  ++items_;
  bytes_ += size;
  ++counts_[size];
}

std::int64_t SizeForecast::fileSize(std::int32_t pageSize, bool isBlob) const {
  return kHeader + kMember * (1 + stores_ + items_) +
         sumOver(counts_, [&](auto size) { return itemSpace(size, pageSize, isBlob); });
}

// Coarsely over all sizes, then finely around the best of those.
std::int32_t SizeForecast::bestPageSize(bool isBlob) const {
  if (bytes_ == 0) return hxcrate::kNewPageSize;
  const std::vector<std::pair<std::int64_t, std::int64_t>> counts(counts_.begin(), counts_.end());
  std::int32_t best = kSmallestPage;
  const auto costOf = [&](std::int32_t pageSize) {
    return sumOver(counts, [&](auto size) {
      return itemSpace(size, pageSize, isBlob) + readingCost(size, pageSize);
    });
  };
  std::int64_t least = costOf(best);
  const auto consider = [&](std::int32_t pageSize) {
    const std::int64_t cost = costOf(pageSize);
    if (cost >= least) return;
    least = cost;
    best = pageSize;
  };
  for (std::int32_t octave = kSmallestPage; octave < kLargestPage; octave *= 2) {
    for (std::int32_t step = 1; step <= kStepsPerOctave; ++step)
      consider(octave + octave / kStepsPerOctave * step);
  }
  const std::int32_t radius = best / kStepsPerOctave;
  const std::int32_t last = std::min(kLargestPage, best + radius);
  const std::int32_t stride = std::max(1, 2 * radius / kFineSteps);
  for (std::int32_t size = std::max(kSmallestPage, best - radius); size <= last; size += stride)
    consider(size);
  return best;
}

}  // namespace tool
