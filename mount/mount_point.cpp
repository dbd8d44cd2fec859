#include "mount/mount_point.h"

#include <mntent.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

extern char** environ;

namespace mounted {

namespace {

enum class Unmount { ifUnused, always };

// Who is not root asks the program that may.
bool askToUnmount(const std::string& path, Unmount how) {
  const char* words[] = {"fusermount3", "-u", "-q", "--", path.c_str(), nullptr, nullptr};
  if (how == Unmount::always) {
    words[3] = "-z";
    words[4] = "--";
    words[5] = path.c_str();
  }
  pid_t child = 0;
  int status = 0;
  return ::posix_spawnp(&child, words[0], nullptr, nullptr, const_cast<char**>(words), environ) ==
             0 &&
         ::waitpid(child, &status, 0) == child && status == 0;
}

bool unmount(const std::string& path, Unmount how) {
  const int flags = UMOUNT_NOFOLLOW | (how == Unmount::always ? MNT_DETACH : 0);
  if (::umount2(path.c_str(), flags) == 0) return true;
  return errno == EPERM && askToUnmount(path, how);
}

// The last that was mounted there counts.
bool isOurs(const std::string& path) {
  const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/self/mounts", "r"),
                                                    ::endmntent);
  bool found = false;
  mntent entry{};
  char text[4 * 4096];
  while (table != nullptr && ::getmntent_r(table.get(), &entry, text, sizeof text) != nullptr) {
    if (path == entry.mnt_dir) found = std::string("fuse.") + kSubtype == entry.mnt_type;
  }
  return found;
}

// A folder whose program is gone still tells what the kernel remembers; this is always asked for.
bool isDead(const std::string& path) {
  struct statfs status {};
  return ::statfs(path.c_str(), &status) != 0 && errno == ENOTCONN;
}

std::int64_t now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(time).count();
}

}  // namespace

std::string prepareMountPoint(const std::string& path) {
  std::error_code error;
  std::string absolute = std::filesystem::canonical(path, error);
  if (error) throw std::system_error(error, path);
  while (isDead(absolute) && isOurs(absolute)) {
    if (!unmount(absolute, Unmount::always)) break;
  }
  if (!std::filesystem::is_directory(absolute, error)) {
    throw std::system_error(error ? error : std::make_error_code(std::errc::not_a_directory), path);
  }
  return absolute;
}

IdleWatch::IdleWatch(std::chrono::seconds idle, std::string mountPoint,
                     const std::atomic<std::int64_t>& lastUse)
    : idle_(idle), mountPoint_(std::move(mountPoint)), lastUse_(lastUse) {
  // Signals are for the thread that waits for the end.
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::jthread([this](const std::stop_token& stop) { watch(stop); });
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void IdleWatch::watch(const std::stop_token& stop) const {
  std::mutex mutex;
  std::condition_variable_any stopped;
  std::unique_lock lock(mutex);
  std::int64_t since = now();  // or later, when it was in use
  while (!stop.stop_requested()) {
    since = std::max(since, lastUse_.load(std::memory_order_relaxed));
    const std::chrono::seconds left = idle_ - std::chrono::seconds(now() - since);
    if (left.count() > 0) {
      stopped.wait_for(lock, stop, left, [] { return false; });
    } else {
      if (unmount(mountPoint_, Unmount::ifUnused)) return;
      since = now();
    }
  }
}

}  // namespace mounted
