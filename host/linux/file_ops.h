// The seam between the files of this host and the system: all that `hxfio` ever does to a disk goes
// through these operations, so that a simulated disk can be put beneath it.
#pragma once

#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace hxhost {

enum class OpenMode {
  kRead,           // an existing file, for reading; the last component is no link
  kUpdate,         // an existing file, for reading and writing; the last component is no link
  kCreateNew,      // a file that did not exist, for reading and writing; locked exclusively from
                   // the moment it has its name, where the system can
  kCreatePrivate,  // one that did not exist, and nobody but its owner may open it
  kCreate          // for reading and writing; created when absent, links are followed
};

enum class LockKind {
  kNone,
  kShared,    // together with other shared locks
  kExclusive  // together with none; needs a file opened for writing
};

// Each is locked by itself.
enum class LockPart {
  kBytes,     // the whole file
  kTurnstile  // a place behind all that a file can hold, where whoever wants kBytes waits for it
};

// A file that is longer is not opened: so no sum of two places in a file passes the largest
// int64_t.
constexpr int64_t kLongestFile = int64_t{1} << 62;

struct FileInfo {
  bool isRegular;
  bool isDirectory;
  int64_t size;  // bytes
  uint64_t device;
  uint64_t inode;
  uint32_t owner;
  int64_t birth;         // nanoseconds since 1970; 0 where the system does not know
  int64_t modified = 0;  // the same, of the bytes
  int64_t changed = 0;   // of anything
};

// An operation returns 0 when it is done, else an errno; one whose result is a number returns that,
// or an errno below zero. They may be called by several threads at once and
// never throw but for std::bad_alloc where a std::string is made. Paths are UTF-8. A path may lead
// elsewhere each time: so a name is looked for in a directory that is open.
class FileOps {
 public:
  virtual ~FileOps() = default;

  // A descriptor, 0 or more, to look for names in; it needs no right to read the directory.
  virtual int openDirectory(const std::string& path) = 0;

  // A descriptor, 0 or more. Never waits for a FIFO's other end nor takes a terminal.
  virtual int open(int directory, const std::string& name, OpenMode mode) = 0;

  // A new file for reading and writing that nobody but its owner may open, until `replace` or its
  // close: without a name where the system can, else under a new `name`. A descriptor, 0 or more.
  virtual int createUnfinished(int /*directory*/, std::string& /*name*/) { return -ENOTSUP; }

  // Gives such a file, which may have the name `from`, the name `to` in place of the file that has
  // it. What has either name is otherwise as it was when it fails.
  virtual int replace(int /*directory*/, const std::string& /*from*/, int /*file*/,
                      const std::string& /*to*/) {
    return ENOTSUP;
  }

  // Releases the descriptor, also when it fails.
  virtual int close(int file) = 0;

  // Bytes transferred, which may be fewer than asked for; 0 from readAt at the end of the file
  // only.
  virtual int64_t readAt(int file, void* out, size_t count, int64_t offset) = 0;
  virtual int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) = 0;

  // The same for parts that lie one after the other in the file, as one operation where there is
  // one; else of the first part alone.
  virtual int64_t readPartsAt(int file, const iovec* parts, int /*count*/, int64_t offset) {
    return readAt(file, parts->iov_base, parts->iov_len, offset);
  }

  // Tells the system that these bytes will be read soon; nobody waits for it.
  virtual void announceRead(int /*file*/, int64_t /*offset*/, int64_t /*count*/) {}

  // Where the first byte at or behind `offset` may lie that is not zero; ENXIO when all are.
  virtual int64_t findData(int, int64_t offset) { return offset; }

  // Shows the file's first `size` bytes in memory, for reading, until `unmap`.
  virtual int map(int /*file*/, size_t /*size*/, const void*& /*start*/) { return ENOTSUP; }
  virtual void unmap(const void* /*start*/, size_t /*size*/) {}

  virtual int inspect(int file, FileInfo& info) = 0;
  virtual int inspectPath(const std::string& path, FileInfo& info) = 0;  // of a link itself
  virtual int inspectName(int directory, const std::string& name, FileInfo& info) = 0;  // the same
  virtual int truncate(int file, int64_t size) = 0;
  virtual int sync(int file) = 0;  // the file's bytes and its length, not its name

  // Takes from the open `file` its name. ESTALE when that is another file's by now.
  virtual int remove(int directory, const std::string& name, int file) = 0;

  // The lock on that part of the file that this opening of it has from now on: it excludes other
  // openings, in this process and elsewhere. EAGAIN when one of theirs is in the way; what this
  // opening had stays then. From one kind to another there is no moment without a lock.
  virtual int lock(int file, LockPart part, LockKind kind) = 0;

  // Lets those open the file `to` who may open `from`, and nobody else; as far as the caller may.
  virtual int copyAccess(int from, int to) = 0;

  // Gives the file the time of now to the nanosecond as that of its last change. The system stamps
  // changes with the ticks of a coarser clock, so that the next one never gets the same.
  virtual int stampChange(int) { return ENOSYS; }

  // Puts on disk what was created and removed in a directory.
  virtual int syncDirectory(int directory) = 0;

  // The absolute path without links of what is there.
  virtual int resolve(const std::string& path, std::string& resolved) = 0;
};

// The system's files. Calls that a signal interrupts are made again.
std::shared_ptr<FileOps> makeSystemFileOps();

}  // namespace hxhost
