// The loop that every transfer runs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "hxcrate/crate.hpp"
#include "interruption.h"
#include "tool/report/progress.h"
#include "tool/report/report.h"
#include "tool/trees/directory.h"

namespace tool {

// Carries bytes from a source to a sink through a buffer that it keeps for the next time.
class BytePump {
 public:
  static constexpr std::int64_t kEverything = std::numeric_limits<std::int64_t>::max();

  // Tells `progress` of what it moves; null: nobody.
  explicit BytePump(Progress* progress) : progress_(progress) {}

  // `take` fills a buffer and returns how many bytes it has, 0 at the end; `give` gets them all.
  // Moves at most `most` bytes and returns how many it moved; that is one file's or item's share.
  template <typename Take, typename Give>
  std::int64_t move(std::int64_t most, Take take, Give give) {
    std::int64_t total = 0;
    while (total < most) {
      throwIfInterrupted();
      const std::span<std::byte> room = roomFor(most - total);
      const std::size_t count = take(room);
      if (count == 0) break;
      give(std::span<const std::byte>(room.first(count)));
      if (progress_ != nullptr) progress_->add(static_cast<std::int64_t>(count));
      total += static_cast<std::int64_t>(count);
    }
    if (progress_ != nullptr) progress_->addFile();
    return total;
  }

 private:
  static constexpr std::size_t kBufferSize = 256 * 1024;

  std::span<std::byte> roomFor(std::int64_t most) {
    const auto wanted = static_cast<std::uint64_t>(most);
    return std::span(buffer_).first(std::min<std::uint64_t>(buffer_.size(), wanted));
  }

  Progress* progress_;
  std::vector<std::byte> buffer_ = std::vector<std::byte>(kBufferSize);
};

// Sources and sinks. A file is called `path` in what they throw, a Failure; an item's errors are
// hxcrate::Error.
inline auto takeFrom(const Descriptor& file, const std::string& path) {
  return [&](std::span<std::byte> room) {
    const ssize_t count = readSome(file, room);
    if (count < 0) throw systemFailure(path, "read");
    return static_cast<std::size_t>(count);
  };
}

inline auto takeFrom(hxcrate::Reader& reader) {
  return [&](std::span<std::byte> room) { return reader.read(room); };
}

inline auto giveTo(const Descriptor& file, const std::string& path) {
  return [&](std::span<const std::byte> bytes) {
    if (!writeAll(file, bytes)) throw systemFailure(path, "write");
  };
}

inline auto giveTo(hxcrate::Writer& writer) {
  return [&](std::span<const std::byte> bytes) { writer.write(bytes); };
}

}  // namespace tool
