// The host for Linux: memory pools, locks, and the extensions `hxfio` (files) and `hxmok`
// (encodings), behind the function slots of host/kernel.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/file_io.h"
#include "host/kernel.h"

namespace hxhost {

class FileOps;
struct HostServices;

// A file operation that failed.
struct FileFailure {
  int error;  // errno; EBUSY when somebody else has the file open; ESTALE when what lies beside it
              // under its journal's name is not its journal, EPERM when it is another user's
  // "open" and "remove"; "read" and "write"; "write the journal", without which no byte of the file
  // changes; "abandon"; of an update's end "sync" (its bytes), "commit" (its journal's removal) and
  // "close"; "roll back" (to what a file was before an update)
  std::string operation;
  int64_t offset;    // of the first byte that could not be transferred; -1 where none is meant
  std::string path;  // UTF-8: as given for "open" and "remove", else resolved
  // The update that failed has left the file as it was. When false, of an update that is closed,
  // the file may be the new one ("commit" and "close"), or will be made what it was by whoever
  // opens it next.
  bool rolledBack = false;
};

// What an update is safe against.
enum class Durability {
  full,  // the death of the process, and of the machine
  none   // of the process alone: nothing waits for the disk but a rollback
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
  Durability durability = Durability::full;
  // How long an open and a removal wait for a file that somebody else has open.
  std::chrono::milliseconds lockWait{0};
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

  // From now on, or no longer, an open for an update refuses a file that is there already, with
  // EEXIST, and a removal leaves it: what is opened is new for certain.
  void takeOnlyNewFiles(bool onlyNew);

  // Gives up an update: what was written to the `file` of this host since it was opened is undone
  // when it is closed, and until then everything fails, with ECANCELED of an "abandon". Nobody may
  // use the file meanwhile. Changes nothing of a file that is open for reading.
  static void abandonUpdate(hx::FileHandle* file);

  // The oldest failure, or the oldest of that path, which is forgotten: an open or a removal that
  // failed, and of an open file each failure that came when none of it was waiting to be taken,
  // reads and everything else apart. Of an update it is always the first, told anew by each later
  // call and at the end, since it takes the whole update with it; a read that fails there is as bad
  // as a lost write. 64 are kept, and the oldest goes first. Only what the disk or the system
  // refused counts, and writes that were lost; an absent file counts for an open, not for a
  // removal.
  std::optional<FileFailure> takeFileFailure();
  std::optional<FileFailure> takeFileFailure(std::string_view path);

 private:
  std::unique_ptr<HostServices> services_;
};

}  // namespace hxhost
