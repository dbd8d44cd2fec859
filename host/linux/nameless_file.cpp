#include "host/linux/nameless_file.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>

#include "host/linux/regular_file.h"

namespace hxhost {
namespace {

int orError(int result) {
  return result < 0 ? -errno : result;
}

class NamelessFileOps : public FileOps {
 public:
  explicit NamelessFileOps(int file) : file_(file) {}

  // Whatever is open is the file.
  int openDirectory(const std::string&) override {
    return orError(::fcntl(file_, F_DUPFD_CLOEXEC, 0));
  }
  int open(int, const std::string&, OpenMode mode) override {
    if (mode == OpenMode::kCreatePrivate) return orError(::memfd_create("journal", MFD_CLOEXEC));
    return orError(::fcntl(file_, F_DUPFD_CLOEXEC, 0));
  }
  int close(int file) override { return system_->close(file); }
  int64_t readAt(int file, void* out, size_t count, int64_t offset) override {
    return system_->readAt(file, out, count, offset);
  }
  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override {
    return system_->writeAt(file, bytes, count, offset);
  }
  int inspect(int file, FileInfo& info) override { return system_->inspect(file, info); }

  // Nothing lies beside the file.
  int inspectPath(const std::string& path, FileInfo& info) override {
    return path == path_ ? inspect(file_, info) : ENOENT;
  }
  int inspectName(int, const std::string& name, FileInfo& info) override {
    return name == nameOf(path_) ? inspect(file_, info) : ENOENT;
  }
  int truncate(int file, int64_t size) override { return system_->truncate(file, size); }
  int sync(int file) override { return system_->sync(file); }
  int remove(int, const std::string&, int) override { return 0; }

  // A lock would outlast the name's coming: it is the caller's opening of the file that has it.
  int lock(int, LockPart, LockKind) override { return 0; }
  int copyAccess(int, int) override { return 0; }
  int syncDirectory(int) override { return 0; }
  int resolve(const std::string& path, std::string& resolved) override {
    path_ = path;
    resolved = path;
    return 0;
  }

 private:
  const std::shared_ptr<FileOps> system_ = makeSystemFileOps();
  const int file_;
  std::string path_;  // asked for last
};

}  // namespace

std::shared_ptr<FileOps> makeNamelessFileOps(int file) {
  return std::make_shared<NamelessFileOps>(file);
}

}  // namespace hxhost
