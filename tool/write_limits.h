// What keeps a command from writing more than is meant or fits.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "directory.h"

namespace tool {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

// Throws a Failure, in which the file or directory to be made is called `path`, unless its file
// system has room for so many bytes more.
void requireRoom(const Descriptor& directory, std::int64_t bytes, const std::string& path);

// A store file holds each byte of its items, unless some of them share pages, which no writer makes
// them do: a small file could become a huge one so. Throws a Failure when the `bytes` of all items
// are more than the file `store` has, or more than `most`, which allows the former.
void requireOwnBytes(const std::string& store, std::int64_t bytes, std::int64_t most);

}  // namespace tool
