#include "item_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "byte_pump.h"
#include "new_file.h"
#include "report.h"

namespace tool {

namespace {

// Where there is room for what the store is to hold: its own folder, if it is a link.
std::string folderOf(const std::string& store) {
  std::error_code ignored;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(store), ignored).parent_path();
}

}  // namespace

ItemInput::ItemInput(const std::string& path, const std::string& store)
    : name_(path == "-" ? "standard input" : path),
      file_(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                        : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct stat status {};
  if (!file_.isOpen() || ::fstat(file_.number(), &status) != 0) throw systemFailure(name_, "open");
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    start_ = ::lseek(file_.number(), 0, SEEK_CUR);
    size_ = std::max<std::int64_t>(status.st_size - start_, 0);
  } else {
    collect(store);
  }
  if (size_ > hxcrate::kItemCapacity) {
    throw Failure(ExitCode::inputOutput, name_, "", "more than the 2147483647 bytes of an item");
  }
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
