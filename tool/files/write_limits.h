// What keeps a command from writing more than is meant or fits.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "hxcrate/crate.hpp"
#include "tool/trees/directory.h"

namespace tool {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

// Throws a Failure, in which the file or directory to be made is called `path`, unless its file
// system has room for so many bytes more.
void requireRoom(const Descriptor& directory, std::int64_t bytes, const std::string& path);

// Throws a Failure, in which the file to be made there is called `path`, when this user can't make
// one in the directory.
void requireWritable(const Descriptor& directory, const std::string& path);

// The directory `path`, or, where there is none, the one that it can be made in. Throws a Failure.
Descriptor openOrAbove(std::string path);

// A store file holds each byte of its items, unless some of them share pages, which no writer makes
// them do: a small file could become a huge one so, and going from page to page anew for each item
// could take hours.
class OwnBytes {
 public:
  // `most`: of --max-bytes, where the command has it; any but kUnlimited allows shared pages.
  explicit OwnBytes(std::optional<std::int64_t> most = std::nullopt) : most_(most) {}

  // Throws a Failure when the `bytes` of the items so far are more than the file has or than the
  // most. To be asked after each item, so that the work ends there as well. The length is that of
  // the file that was opened: its path may lead to another one by now.
  void require(const hxcrate::Store& store, std::int64_t bytes) const {
    require(store.path(), store.openedLength().value_or(kUnlimited), bytes);
  }
  void require(const std::string& path, std::int64_t length, std::int64_t bytes) const;

  // The same when far more bytes of the file were read so far than it has. To be asked after each
  // item that can't be read: nobody knows how many pages it shares with others.
  void requireRead(const hxcrate::Store& store) const;
  template <typename Read>
  auto whileReading(const hxcrate::Store& store, Read read) const {
    try {
      return read();
    } catch (const hxcrate::Error&) {
      requireRead(store);
      throw;
    }
  }

 private:
  bool allowsShared() const { return most_.value_or(kUnlimited) != kUnlimited; }

  std::optional<std::int64_t> most_;
};

}  // namespace tool
