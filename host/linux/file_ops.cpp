#include "host/linux/file_ops.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "host/linux/unfinished_file.h"

namespace hxhost {
namespace {

constexpr int kMostTries = 100;

template <typename Call>
auto repeatInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result < 0 ? -errno : result;
}

// Of a call that has no other result.
template <typename Call>
int errorOf(Call call) {
  return -repeatInterrupted(call);
}

int accessFlags(OpenMode mode) {
  switch (mode) {
    case OpenMode::kRead:
      return O_RDONLY | O_NOFOLLOW;
    case OpenMode::kUpdate:
      return O_RDWR | O_NOFOLLOW;
    case OpenMode::kCreateNew:
    case OpenMode::kCreatePrivate:
      return O_RDWR | O_CREAT | O_EXCL;
    case OpenMode::kCreate:
      return O_RDWR | O_CREAT;
  }
  return O_RDONLY;
}

mode_t permissionsOf(OpenMode mode) {
  return mode == OpenMode::kCreatePrivate ? 0600 : 0666;
}

short lockType(LockKind kind) {
  if (kind == LockKind::kNone) return F_UNLCK;
  return kind == LockKind::kShared ? F_RDLCK : F_WRLCK;
}

int64_t nanosecondsOf(const statx_timestamp& time) {
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

int inspectAt(int file, const char* path, int flags, FileInfo& info) {
  struct statx status {};
  if (::statx(file, path, flags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return errno;
  info = {S_ISREG(status.stx_mode),
          S_ISDIR(status.stx_mode),
          static_cast<int64_t>(status.stx_size),
          makedev(status.stx_dev_major, status.stx_dev_minor),
          status.stx_ino,
          status.stx_uid,
          (status.stx_mask & STATX_BTIME) != 0 ? nanosecondsOf(status.stx_btime) : 0,
          nanosecondsOf(status.stx_mtime),
          nanosecondsOf(status.stx_ctime)};
  return 0;
}

int openDirectoryAt(int from, const char* path, int access) {
  const int flags = access | O_DIRECTORY | O_CLOEXEC;
  return repeatInterrupted([&] { return ::openat(from, path, flags); });
}

int setLock(int file, LockPart part, LockKind kind) {
  struct flock range {};
  range.l_type = lockType(kind);
  range.l_whence = SEEK_SET;
  range.l_start = part == LockPart::kBytes ? 0 : kLongestFile;
  range.l_len = part == LockPart::kBytes ? kLongestFile : 1;
  const int error = errorOf([&] { return ::fcntl(file, F_OFD_SETLK, &range); });
  return error == EACCES ? EAGAIN : error;
}

std::string pathOfOpen(int file) {
  return "/proc/self/fd/" + std::to_string(file);
}

int linkOpen(int file, int directory, const char* name) {
  const std::string opened = pathOfOpen(file);
  const int result = ::linkat(AT_FDCWD, opened.c_str(), directory, name, AT_SYMLINK_FOLLOW);
  return result == 0 ? 0 : errno;
}

// It gets its name when it is locked. EOPNOTSUPP, among others, where that can't be.
int createLocked(int directory, const char* name) {
  const int file = repeatInterrupted(
      [&] { return ::openat(directory, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0666); });
  if (file < 0) return file;
  int error = setLock(file, LockPart::kBytes, LockKind::kExclusive);
  if (error == 0) error = linkOpen(file, directory, name);
  if (error == 0) return file;
  ::close(file);
  return -error;
}

// A descriptor of a file that can get a name later, or an errno below zero.
int openNameless(int directory) {
  const int file = repeatInterrupted(
      [&] { return ::openat(directory, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600); });
  if (file < 0 || ::access(pathOfOpen(file).c_str(), F_OK) == 0) return file;
  ::close(file);
  return -ENOENT;
}

// ESTALE when somebody took it for left over before it was locked.
int createHeld(int directory, const char* name) {
  const int flags = accessFlags(OpenMode::kCreatePrivate) | O_CLOEXEC;
  const int file = repeatInterrupted([&] { return ::openat(directory, name, flags, 0600); });
  if (file < 0) return file;
  if (lockUnfinished(file) && compareName(directory, name, file) == 0) return file;
  removeFrom(directory, name, file);
  ::close(file);
  return -ESTALE;
}

// The access rights behind the mode, of which the group's bits are then no more than a bound.
bool copyAcl(int from, int to) {
  constexpr const char* kAcl = "system.posix_acl_access";
  std::vector<char> acl(1 << 16);
  const ssize_t length = ::fgetxattr(from, kAcl, acl.data(), acl.size());
  if (length >= 0) return ::fsetxattr(to, kAcl, acl.data(), static_cast<size_t>(length), 0) == 0;
  if (errno != ENODATA && errno != ENOTSUP) return false;
  return ::fremovexattr(to, kAcl) == 0 || errno == ENODATA || errno == ENOTSUP;
}

class SystemFileOps : public FileOps {
 public:
  int openDirectory(const std::string& path) override {
    return openDirectoryAt(AT_FDCWD, path.c_str(), O_PATH);
  }

  int open(int directory, const std::string& name, OpenMode mode) override {
    if (mode == OpenMode::kCreateNew) {
      const int file = createLocked(directory, name.c_str());
      if (file >= 0 || file == -EEXIST) return file;
    }
    const int flags = accessFlags(mode) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    return repeatInterrupted(
        [&] { return ::openat(directory, name.c_str(), flags, permissionsOf(mode)); });
  }

  int createUnfinished(int directory, std::string& name) override {
    removeLeftovers(directory);
    name.clear();
    const int nameless = openNameless(directory);
    if (nameless >= 0) return nameless;
    for (int i = 0; i < kMostTries; ++i) {
      const std::string tried = makeUnfinishedName();
      const int file = createHeld(directory, tried.c_str());
      if (file >= 0) name = tried;
      if (file != -EEXIST && file != -ESTALE) return file;
    }
    return -EEXIST;
  }

  int replace(int directory, const std::string& from, int file, const std::string& to) override {
    std::string name = from;
    if (name.empty()) {
      name = makeUnfinishedName();
      if (!lockUnfinished(file)) return errno;
      if (const int error = linkOpen(file, directory, name.c_str()); error != 0) return error;
    }
    int error = compareName(directory, name.c_str(), file);
    if (error == 0 && ::renameat(directory, name.c_str(), directory, to.c_str()) != 0)
      error = errno;
    if (error != 0 && from.empty()) removeFrom(directory, name.c_str(), file);
    return error;
  }

  int close(int file) override {
    // Linux has let go of the descriptor even when a signal came in between.
    return ::close(file) == 0 || errno == EINTR ? 0 : errno;
  }

  int64_t readAt(int file, void* out, size_t count, int64_t offset) override {
    return repeatInterrupted([&]() -> int64_t { return ::pread(file, out, count, offset); });
  }

  int64_t readPartsAt(int file, const iovec* parts, int count, int64_t offset) override {
    return repeatInterrupted([&]() -> int64_t { return ::preadv(file, parts, count, offset); });
  }

  void announceRead(int file, int64_t offset, int64_t count) override {
    ::posix_fadvise(file, offset, count, POSIX_FADV_WILLNEED);
  }

  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override {
    return repeatInterrupted([&]() -> int64_t { return ::pwrite(file, bytes, count, offset); });
  }

  int64_t findData(int file, int64_t offset) override {
    return repeatInterrupted([&]() -> int64_t { return ::lseek(file, offset, SEEK_DATA); });
  }

  int map(int file, size_t size, const void*& start) override {
    void* mapping = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (mapping == MAP_FAILED) return errno;
    start = mapping;
    return 0;
  }

  void unmap(const void* start, size_t size) override { ::munmap(const_cast<void*>(start), size); }

  int inspect(int file, FileInfo& info) override {
    return inspectAt(file, "", AT_EMPTY_PATH, info);
  }

  int inspectPath(const std::string& path, FileInfo& info) override {
    return inspectName(AT_FDCWD, path, info);
  }

  int inspectName(int directory, const std::string& name, FileInfo& info) override {
    return inspectAt(directory, name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, info);
  }

  int truncate(int file, int64_t size) override {
    return errorOf([&] { return ::ftruncate(file, size); });
  }

  int sync(int file) override {
    return errorOf([&] { return ::fdatasync(file); });
  }

  int lock(int file, LockPart part, LockKind kind) override { return setLock(file, part, kind); }

  int copyAccess(int from, int to) override {
    struct stat status {};
    if (::fstat(from, &status) != 0) return errno;
    mode_t permissions = status.st_mode & 0666;
    const bool hasGroup = ::fchown(to, status.st_uid, status.st_gid) == 0 ||
                          ::fchown(to, static_cast<uid_t>(-1), status.st_gid) == 0;
    if (!hasGroup) permissions &= ~mode_t{0060};  // it would let in another group
    if (!copyAcl(from, to)) permissions &= 0600;
    return ::fchmod(to, permissions) == 0 ? 0 : errno;
  }

  int stampChange(int file) override {
    timespec times[2] = {{0, UTIME_OMIT}, {}};
    if (::clock_gettime(CLOCK_REALTIME, &times[1]) != 0) return errno;
    return ::futimens(file, times) == 0 ? 0 : errno;
  }

  int syncDirectory(int directory) override {
    const int readable = openDirectoryAt(directory, ".", O_RDONLY);
    if (readable < 0) return -readable;
    const int error = errorOf([&] { return ::fsync(readable); });
    ::close(readable);
    return error;
  }

  int remove(int directory, const std::string& name, int file) override {
    return removeFrom(directory, name.c_str(), file);
  }

  int resolve(const std::string& path, std::string& resolved) override {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                           &std::free);
    if (real == nullptr) return errno;
    resolved = real.get();
    return 0;
  }
};

}  // namespace

std::shared_ptr<FileOps> makeSystemFileOps() {
  return std::make_shared<SystemFileOps>();
}

}  // namespace hxhost
