// The host for Linux: memory pools, locks, and the extensions `hxfio` (files) and `hxmok`
// (encodings), behind the function slots of host/kernel.h.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/kernel.h"

namespace hxhost {

class FileOps;
struct HostServices;

// A file operation that failed.
struct FileFailure {
  int error;              // errno
  std::string operation;  // "open", "read", "write", "close" or "remove"
  int64_t offset;         // of the first byte that could not be transferred; -1 where none is meant
  std::string path;       // UTF-8: as given for "open" and "remove", else resolved
};

// Memory of all pools of a host. Bytes are those asked for, without the allocator's own.
struct PoolUse {
  uint64_t bytes;
  uint64_t blocks;
  uint64_t peakBytes;  // the most that were in use at one time
};

struct HostOptions {
  // Bound on the cache of each open file, between 256 bytes and 64 MiB. It is divided into blocks
  // of at most 256 KiB; below 1 MiB they, and so the transfers, become smaller.
  int64_t cacheBytesPerFile = 2 * 1024 * 1024;
  // What the files are made of; null for the system's. Shared with every file of the host.
  std::shared_ptr<FileOps> fileOps;
};

// Two hosts share nothing. A host outlives every instance and every object made from it. All
// functions may be called by several threads at once.
class LinuxHost {
 public:
  explicit LinuxHost(const HostOptions& options = {});
  ~LinuxHost();
  LinuxHost(const LinuxHost&) = delete;
  LinuxHost& operator=(const LinuxHost&) = delete;

  // What the module's entry points take; owned by this object, its `destroy` slot is null.
  hx::HostHandle* handle();

  PoolUse poolUse() const;

  // The failure recorded last, which is forgotten: an open or a removal that failed, or the first
  // failure of an open file. Only what the disk or the system refused counts, and writes that were
  // lost; an absent file counts for an open, not for a removal.
  std::optional<FileFailure> takeFileFailure();

 private:
  std::unique_ptr<HostServices> services_;
};

}  // namespace hxhost
