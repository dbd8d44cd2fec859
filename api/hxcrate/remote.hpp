// Stores behind URLs: http://, https:// and s3://bucket/key. They are read where they lie, by
// libhxremote.so, which is a package of its own; an object of s3:// can be made whole.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
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
  // Asked a few times a second while somebody waits for a server, by any thread; does not throw.
  // What it is false for fails.
  std::function<bool()> goesOn = [] { return true; };
};

// For all that is opened from now on in this process. Safe for several threads.
void setRemoteOptions(const RemoteOptions& options);

// What it took to read behind URLs.
struct Transfers {
  std::int64_t requests = 0;
  std::int64_t bytes = 0;            // received, without the heads of replies
  std::chrono::nanoseconds time{0};  // for which somebody waited
};

struct SendOptions {
  // An object that is there already, else that one stays. Of servers that know no `If-None-Match`
  // it is replaced all the same: look before.
  bool replace = false;
  // Told now and then how many bytes are sent. What it throws ends it and goes through.
  std::function<void(std::int64_t)> onProgress = {};
};

// Makes the bytes, a blob's or a store file's, the object `url`, s3://bucket/key: by one request,
// or above 5 GiB in parts. Whatever is thrown there is no such object, or the one that was before:
// exists; fileNotOpen where URLs can't be written; fileFailed, also when a reply was lost and all
// may have come. Options of setRemoteOptions hold.
void sendObject(const std::string& url, std::span<const std::byte> bytes,
                const SendOptions& options = {});

// Whether a path is taken for a URL. A file of such a name is "./" and that name.
bool isUrl(const std::string& path);

// For people: a URL without user, password and query, which may hold a signature; any other path as
// it is.
std::string showPath(const std::string& path);

}  // namespace hxcrate
