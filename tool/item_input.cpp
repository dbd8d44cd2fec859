#include "item_input.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "byte_pump.h"
#include "report.h"

namespace tool {

namespace {

Descriptor openTemporary() {
  std::string path = "/tmp/hxcrate-XXXXXX";
  Descriptor file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file.isOpen() || ::unlink(path.c_str()) != 0) throw systemFailure("/tmp", "create a file");
  return file;
}

}  // namespace

ItemInput::ItemInput(const std::string& path)
    : name_(path == "-" ? "standard input" : path),
      file_(path == "-" ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct stat status {};
  if (!file_.isOpen() || ::fstat(file_.number(), &status) != 0) throw systemFailure(name_, "open");
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    size_ = std::max<std::int64_t>(status.st_size - ::lseek(file_.number(), 0, SEEK_CUR), 0);
  } else {
    collect();
  }
  if (size_ > hxcrate::kItemCapacity) {
    throw Failure(ExitCode::inputOutput, name_, "", "more than the 2147483647 bytes of an item");
  }
}

void ItemInput::collect() {
  Descriptor collected = openTemporary();
  Progress progress("reading");
  size_ = BytePump(&progress).move(hxcrate::kItemCapacity + 1, takeFrom(file_, name_),
                                   giveTo(collected, "/tmp"));
  if (::lseek(collected.number(), 0, SEEK_SET) != 0) throw systemFailure("/tmp", "seek");
  file_ = std::move(collected);
}

}  // namespace tool
