#include "item_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tool/files/byte_pump.h"
#include "tool/files/new_file.h"
#include "tool/report/report.h"

namespace tool {

namespace {

std::string nameOf(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

Descriptor openInput(const std::string& path, int flags) {
  if (path == "-") return Descriptor(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  return Descriptor(
      repeatInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags); }));
}

struct stat statusOf(const Descriptor& file, const std::string& name) {
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.number(), &status) != 0) throw systemFailure(name, "open");
  return status;
}

// From where it stands. What may hold bytes that its size does not tell has none.
std::int64_t measureRest(const Descriptor& file, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return 0;
  return std::max<std::int64_t>(status.st_size - ::lseek(file.number(), 0, SEEK_CUR), 0);
}

void requireCapacity(std::int64_t size, const std::string& name) {
  if (size <= hxcrate::kItemCapacity) return;
  throw Failure(ExitCode::inputOutput, name, "", "more than the 2147483647 bytes of an item");
}

// Where there is room for what the store is to hold: its own folder, if it is a link.
std::string folderOf(const std::string& store) {
  std::error_code ignored;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(store), ignored).parent_path();
}

}  // namespace

ItemInput::ItemInput(const std::string& path, const std::string& store)
    : name_(nameOf(path)), file_(openInput(path, 0)) {
  const struct stat status = statusOf(file_, name_);
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    start_ = ::lseek(file_.number(), 0, SEEK_CUR);
    size_ = measureRest(file_, status);
  } else {
    collect(store);
  }
  requireCapacity(size_, name_);
}

std::int64_t ItemInput::requireReadable(const std::string& path) {
  const std::string name = nameOf(path);
  const Descriptor file = openInput(path, O_NONBLOCK);
  const struct stat status = statusOf(file, name);
  const int flags = ::fcntl(file.number(), F_GETFL);
  errno = S_ISDIR(status.st_mode) ? EISDIR : (flags & O_ACCMODE) == O_WRONLY ? EBADF : 0;
  if (errno != 0) throw systemFailure(name, "read");
  const std::int64_t size = measureRest(file, status);
  requireCapacity(size, name);
  return size;
}

void ItemInput::collect(const std::string& store) {
  const std::string folder = folderOf(store);
  Descriptor collected = openNameless(openDirectory(folder), folder);
  Progress progress("reading");
  size_ = BytePump(&progress).move(hxcrate::kItemCapacity + 1, takeFrom(file_, name_),
                                   giveTo(collected, folder));
  file_ = std::move(collected);
}

void ItemInput::rewind() const {
  if (::lseek(file_.number(), start_, SEEK_SET) != start_) throw systemFailure(name_, "seek");
}

}  // namespace tool
