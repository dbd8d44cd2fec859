#include "host/linux/unfinished_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

namespace hxhost {
namespace {

constexpr std::string_view kPrefix = ".hxcrate-";
constexpr size_t kDigits = 16;

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

bool isUnfinishedName(std::string_view name) {
  return name.size() == kPrefix.size() + kDigits && name.starts_with(kPrefix) &&
         name.find_first_not_of("0123456789abcdef", kPrefix.size()) == name.npos;
}

bool isOwn(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid() &&
         status.st_nlink == 1;
}

void removeLeftover(int directory, const char* name) {
  const int flags = O_RDWR | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC;
  const int file = ::openat(directory, name, flags);
  if (file < 0) return;
  if (isOwn(file) && lockUnfinished(file)) removeFrom(directory, name, file);
  ::close(file);
}

}  // namespace

std::string makeUnfinishedName() {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof(random), 0) != sizeof(random)) return "";
  char name[kPrefix.size() + kDigits + 1];
  std::snprintf(name, sizeof(name), "%s%016" PRIx64, kPrefix.data(), random);
  return name;
}

bool lockUnfinished(int file) noexcept {
  return ::flock(file, LOCK_EX | LOCK_NB) == 0;
}

int compareName(int directory, const char* name, int file) {
  struct stat there {};
  struct stat own {};
  if (::fstatat(directory, name, &there, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (::fstat(file, &own) != 0) return errno;
  return there.st_dev == own.st_dev && there.st_ino == own.st_ino ? 0 : ESTALE;
}

// Looked at right before: so whoever exchanges files there meanwhile hardly has one of somebody
// else's removed.
int removeFrom(int directory, const char* name, int file) {
  const int error = compareName(directory, name, file);
  if (error != 0) return error;
  return ::unlinkat(directory, name, 0) == 0 ? 0 : errno;
}

void removeLeftovers(int directory) noexcept {
  // A description of its own: the reading position is shared by duplicates.
  const int own = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, DirectoryCloser> names(own < 0 ? nullptr : ::fdopendir(own));
  if (!names) {
    if (own >= 0) ::close(own);
    return;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this one
  while (const dirent* entry = ::readdir(names.get()))
    if (isUnfinishedName(entry->d_name)) removeLeftover(directory, entry->d_name);
}

}  // namespace hxhost
