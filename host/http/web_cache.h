// The folder in which bytes of remote files outlive a process: one file for each URL, of the
// version that was read last. Everything in it may go at any time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/http/range_request.h"

namespace hxremote {

// The local file of a URL, for a BlockSpool.
struct CachedFile {
  int file;
  Identity identity;
};

// Without a folder that is the user's own and nobody else's it keeps nothing.
class WebCache {
 public:
  // Below $XDG_CACHE_HOME or ~/.cache, made where it is absent; `mostBytes` are kept in it.
  explicit WebCache(int64_t mostBytes);
  ~WebCache();
  WebCache(const WebCache&) = delete;
  WebCache& operator=(const WebCache&) = delete;

  bool isOpen() const { return folder_ >= 0; }

  // What is kept of the file; nothing when nothing is. The descriptor is the caller's.
  std::optional<CachedFile> find(const WebAddress& address) const;

  // A new file that takes the place of what was kept. A descriptor, or -1.
  int make(const WebAddress& address, const Identity& identity) const;

  // As many files, the longest unused first, as are too much.
  void removeOldest() const;

 private:
  int64_t mostBytes_;
  int folder_ = -1;
};

// A local file that has no name and goes with its descriptor; -1 with errno set.
int makeNamelessFile();

}  // namespace hxremote
