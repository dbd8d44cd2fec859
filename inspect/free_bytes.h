// The bytes that nobody owns, searched for records.
#pragma once

#include <algorithm>
#include <vector>

#include "inspect/ledger.h"

namespace hxcrate {

// Calls `consider(bytes, at)` for each place at which `size` free bytes begin, which `bytes` points
// to. When it returns true they are taken for a record, and the search goes on behind them.
template <typename Consider>
void searchFreeBytes(const Ledger& ledger, std::size_t size, Consider consider) {
  constexpr int64_t kWindow = 1 << 20;
  std::vector<std::byte> window;
  for (const ByteRange& range : ledger.claimed.listFree({0, ledger.reader.length()})) {
    for (int64_t at = range.start; range.end - at >= static_cast<int64_t>(size);) {
      window.resize(
          static_cast<std::size_t>(std::min(kWindow + static_cast<int64_t>(size), range.end - at)));
      window.resize(ledger.reader.source().read(at, window));
      if (window.size() < size) break;
      std::size_t i = 0;
      while (i + size <= window.size())
        i += consider(window.data() + i, at + static_cast<int64_t>(i)) ? size : 1;
      at += static_cast<int64_t>(i);
    }
  }
}

}  // namespace hxcrate
