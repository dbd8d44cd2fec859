// Stores behind URLs: http://, https:// and s3://bucket/key, for reading. They are read where they
// lie, by libhxremote.so, which is a package of its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace hxcrate {

struct RemoteOptions {
  // What was read is kept below $XDG_CACHE_HOME or ~/.cache, in a folder that is the user's alone,
  // and used again as long as the server says that the file is the same.
  bool useCache = true;
  std::int64_t cacheBytes = std::int64_t{1} << 30;  // at most in that folder
  std::int64_t maxBytes = -1;  // received for one opening of a URL; below zero: any number
  // With a server that sends nothing. What fails for a moment is asked for again, with pauses.
  std::chrono::milliseconds patience{30000};
};

// For all that is opened from now on in this process. Safe for several threads.
void setRemoteOptions(const RemoteOptions& options);

// What it took to read behind URLs.
struct Transfers {
  std::int64_t requests = 0;
  std::int64_t bytes = 0;            // received, without the heads of replies
  std::chrono::nanoseconds time{0};  // for which somebody waited
};

// Whether a path is taken for a URL. A file of such a name is "./" and that name.
bool isUrl(const std::string& path);

// For people: a URL without user, password and query, which may hold a signature; any other path as
// it is.
std::string showPath(const std::string& path);

}  // namespace hxcrate
