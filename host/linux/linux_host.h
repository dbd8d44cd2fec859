// The host for Linux: memory pools, locks, and the extensions `hxfio` (files) and `hxmok`
// (encodings), behind the function slots of host/kernel.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "host/file_io.h"
#include "host/kernel.h"
#include "host/linux/file_outcome.h"
#include "host/linux/open_request.h"

namespace hxhost {

class FileOps;
struct RegularFile;
struct HostServices;

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
  // How long opens and removals without an OpenRequest wait for a file that somebody else has open;
  // below zero: for ever.
  std::chrono::milliseconds lockWait{0};
  // The file service of the host's instances, in place of one over `fileOps`; the caller's, who
  // keeps it as long as the host. What this host tells of its files holds for none of them.
  hx::FileIo* files = nullptr;
};

// A file as the system has it open.
struct OpenedFile {
  FileOps& ops;
  const RegularFile& file;
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

  // Opens and locks the file `path` of a host's `hxfio` for the calling thread's OpenRequest, and
  // waits for that as long as its terms say, also for those who have the file open through `files`.
  // What the thread asks of `files` for the same path while the request lives waits no more, and
  // nobody else gets in between: opens for reading after kRead, for an update too after kUpdate,
  // also a removal after kReplace. So nobody waits under the module's lock. False when that failed,
  // as the request tells, or when there is no request.
  static bool reserve(hx::FileIo* files, std::u32string_view path, Purpose purpose);

  // What became of a `file` of any host, the reasons of its failures with it.
  static std::shared_ptr<FileOutcome> outcomeOf(hx::FileHandle* file);

  // A `file` of any host, locked for as long as that is open, to be read past its cache.
  static OpenedFile openedOf(hx::FileHandle* file);

  // Makes what was written to the `file` since it was opened or committed last stay, as a close
  // would, and goes on with the update; nobody can slip in between. False when that failed: the
  // outcome says why and what the file is now, and until it is closed everything fails.
  // Nobody may use the file meanwhile.
  static bool commitUpdate(hx::FileHandle* file);

  // Gives up an update: what was written to the `file` since it was opened or committed last is
  // undone when it is closed, and until then everything fails; its loss is kAbandon, unless it was
  // lost before. Nobody may use the file meanwhile. Changes nothing of a file that is open for
  // reading.
  static void abandonUpdate(hx::FileHandle* file);

 private:
  std::unique_ptr<HostServices> services_;
};

}  // namespace hxhost
