#include "directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>

#include "tool/files/interruption.h"
#include "tool/report/report.h"

namespace tool {

namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

Descriptor::~Descriptor() {
  close();
}

bool Descriptor::close() {
  return !isOpen() || ::close(std::exchange(number_, -1)) == 0;
}

ssize_t readSome(const Descriptor& file, std::span<std::byte> buffer) {
  while (true) {
    const ssize_t count = ::read(file.number(), buffer.data(), buffer.size());
    if (count >= 0 || errno != EINTR) return count;
    throwIfInterrupted();  // it may be long until there is something to read
  }
}

bool writeAll(const Descriptor& file, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        repeatInterrupted([&] { return ::write(file.number(), bytes.data(), bytes.size()); });
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

std::size_t readAt(const Descriptor& file, std::int64_t offset, std::span<std::byte> buffer) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    const std::span<std::byte> rest = buffer.subspan(done);
    const off_t at = offset + static_cast<off_t>(done);
    const ssize_t count =
        repeatInterrupted([&] { return ::pread(file.number(), rest.data(), rest.size(), at); });
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

bool writeAt(const Descriptor& file, std::int64_t offset, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = repeatInterrupted(
        [&] { return ::pwrite(file.number(), bytes.data(), bytes.size(), offset); });
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
    offset += count;
  }
  return true;
}

// Some file systems have nothing to put there for a directory, and say so.
bool sync(const Descriptor& file) {
  return repeatInterrupted([&] { return ::fsync(file.number()); }) == 0 || errno == EINVAL;
}

Descriptor openBeneath(const Descriptor& directory, const std::string& name, int flags,
                       mode_t mode) {
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_NOFOLLOW | O_CLOEXEC);
  how.mode = mode;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  long opened = repeatInterrupted(
      [&] { return ::syscall(SYS_openat2, directory.number(), name.c_str(), &how, sizeof(how)); });
  if (opened < 0 && errno == ENOSYS) {  // before Linux 5.6 all rests on the name, which is one
    opened = repeatInterrupted([&] {
      return ::openat(directory.number(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
    });
  }
  return Descriptor(static_cast<int>(opened));
}

std::optional<struct stat> inspect(const Descriptor& directory, const std::string& name) {
  struct stat status {};
  if (::fstatat(directory.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return {};
  return status;
}

std::optional<std::string> readLink(const Descriptor& directory, const std::string& name) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length =
      ::readlinkat(directory.number(), name.c_str(), target.data(), target.size());
  if (length < 0) return {};
  target.resize(static_cast<std::size_t>(length));
  return target;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool moveFile(const Descriptor& fromDirectory, const std::string& from,
              const Descriptor& toDirectory, const std::string& to, bool replace) {
  const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
  if (::renameat2(fromDirectory.number(), from.c_str(), toDirectory.number(), to.c_str(), flags) ==
      0) {
    return true;
  }
  if (replace || errno != EINVAL) return false;
  // Some file systems know no such renaming; a second name never replaces anything either.
  return ::linkat(fromDirectory.number(), from.c_str(), toDirectory.number(), to.c_str(), 0) == 0 &&
         ::unlinkat(fromDirectory.number(), from.c_str(), 0) == 0;
}

bool isFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

std::optional<std::vector<std::string>> listNames(const Descriptor& directory) {
  // A description of its own: the reading position is shared by duplicates.
  const int own = ::openat(directory.number(), ".", kOpenDirectory);
  if (own < 0) return std::nullopt;
  const std::unique_ptr<DIR, DirectoryCloser> stream(::fdopendir(own));
  if (!stream) {
    ::close(own);
    return std::nullopt;
  }
  std::vector<std::string> names;
  errno = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this one
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) return std::nullopt;
  std::sort(names.begin(), names.end());
  return names;
}

Descriptor openDirectory(const std::string& path) {
  Descriptor directory(repeatInterrupted([&] { return ::open(path.c_str(), kOpenDirectory); }));
  if (!directory.isOpen()) throw systemFailure(path, "open directory");
  return directory;
}

void requireFilePath(const std::string& path) {
  if (!hxcrate::isUrl(path)) return;
  throw Failure(ExitCode::notOpenable, path, "", "what lies behind a URL is only read");
}

FilePlace locateFile(const std::string& path) {
  requireFilePath(path);
  const std::size_t slash = path.rfind('/');
  const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
  if (name.empty() || name == "." || name == "..") {
    throw Failure(ExitCode::notOpenable, path, "", "not the name of a file");
  }
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash);
  return {openDirectory(directory.empty() ? "/" : directory), name};
}

DirectoryCursor::DirectoryCursor(const std::string& path)
    : current_(openDirectory(path)), path_(path) {
  while (path_.size() > 1 && path_.back() == '/')
    path_.pop_back();
  if (path_ == ".") path_.clear();
}

std::string DirectoryCursor::pathTo(const std::string& name) const {
  if (path_.empty()) return name;
  return path_.ends_with('/') ? path_ + name : path_ + "/" + name;
}

bool DirectoryCursor::enter(const std::string& name) {
  struct stat left {};
  if (::fstat(current_.number(), &left) != 0) return false;
  Descriptor next = openBeneath(current_, name, kOpenDirectory);
  if (!next.isOpen()) return false;
  steps_.push_back({left, path_.size()});
  current_ = std::move(next);
  path_ = pathTo(name);
  return true;
}

void DirectoryCursor::leave() {
  Descriptor above(::openat(current_.number(), "..", kOpenDirectory));
  struct stat status {};
  if (!above.isOpen() || ::fstat(above.number(), &status) != 0) {
    throw systemFailure(path(), "return to the directory above");
  }
  if (!isSameFile(status, steps_.back().left)) {
    throw Failure(ExitCode::inputOutput, path(), "", "the directory was moved meanwhile");
  }
  current_ = std::move(above);
  path_.resize(steps_.back().pathLength);
  steps_.pop_back();
}

}  // namespace tool
