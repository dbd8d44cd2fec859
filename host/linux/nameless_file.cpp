#include "host/linux/nameless_file.h"

#include <sys/mman.h>

#include <cerrno>
#include <utility>

#include "host/linux/regular_file.h"

namespace hxhost {
namespace {

class NamelessFileOps : public FileOps {
 public:
  NamelessFileOps(std::shared_ptr<FileOps> disk, int file) : disk_(std::move(disk)), file_(file) {}

  // Whatever is open is the file, but for its journal.
  int openDirectory(const std::string&) override { return file_; }
  int open(int, const std::string&, OpenMode mode) override {
    if (mode != OpenMode::kCreatePrivate) return file_;
    const int journal = ::memfd_create("journal", MFD_CLOEXEC);
    return journal < 0 ? -errno : journal;
  }
  int close(int file) override { return file == file_ ? 0 : memory_->close(file); }
  int64_t readAt(int file, void* out, size_t count, int64_t offset) override {
    return diskOf(file).readAt(file, out, count, offset);
  }
  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override {
    return diskOf(file).writeAt(file, bytes, count, offset);
  }
  int inspect(int file, FileInfo& info) override { return diskOf(file).inspect(file, info); }

  // Nothing lies beside the file.
  int inspectPath(const std::string& path, FileInfo& info) override {
    return path == path_ ? inspect(file_, info) : ENOENT;
  }
  int inspectName(int, const std::string& name, FileInfo& info) override {
    return name == nameOf(path_) ? inspect(file_, info) : ENOENT;
  }
  int truncate(int file, int64_t size) override { return diskOf(file).truncate(file, size); }
  int sync(int file) override { return diskOf(file).sync(file); }
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
  FileOps& diskOf(int file) const { return file == file_ ? *disk_ : *memory_; }

  const std::shared_ptr<FileOps> disk_;
  const std::shared_ptr<FileOps> memory_ = makeSystemFileOps();
  const int file_;
  std::string path_;  // asked for last
};

}  // namespace

std::shared_ptr<FileOps> makeNamelessFileOps(std::shared_ptr<FileOps> disk, int file) {
  return std::make_shared<NamelessFileOps>(std::move(disk), file);
}

}  // namespace hxhost
