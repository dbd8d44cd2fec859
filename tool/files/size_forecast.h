// How large a store file is going to be, before it is made.
#pragma once

#include <cstdint>
#include <map>

namespace tool {

class SizeForecast {
 public:
  void addStore() { ++stores_; }
  void addItem(std::int64_t size);

  std::int64_t stores() const { return stores_; }  // but the top one
  std::int64_t items() const { return items_; }
  std::int64_t bytes() const { return bytes_; }  // of all items

  // The exact length of the file when every item is written once, into a new store; of the blob
  // when the store is in memory.
  std::int64_t fileSize(std::int32_t pageSize, bool isBlob) const;

  // The page size that makes the smallest file, to within a hundredth of a page, when each page of
  // an item behind its first 1000 counts 700 bytes more: about what it costs to read its record. An
  // item takes about half a page more than its bytes, and 24 bytes for each page, so the best for
  // small items is near the root of 48 times the usual size; an item of 2 GB among many of those
  // does not get millions of pages.
  std::int32_t bestPageSize(bool isBlob) const;

 private:
  std::map<std::int64_t, std::int64_t> counts_;  // of items, by their size
  std::int64_t stores_ = 0;
  std::int64_t items_ = 0;
  std::int64_t bytes_ = 0;
};

}  // namespace tool
