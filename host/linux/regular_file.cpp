#include "host/linux/regular_file.h"

#include <cerrno>

namespace hxhost {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(ops_, other.ops_);
  std::swap(number_, other.number_);
  return *this;
}

int Descriptor::close() {
  if (!isOpen()) return 0;
  return -ops_->close(std::exchange(number_, -1));
}

namespace {

int refusalOf(const FileInfo& info) {
  if (info.isRegular) return 0;
  return info.isDirectory ? EISDIR : ENOTSUP;
}

// Where the file that `path` leads to is; an errno when it is absent or not regular. Looking before
// opening matters: the mere opening of a device or a FIFO has effects.
int locateRegularFile(FileOps& ops, const std::string& path, std::string& resolved) {
  if (const int result = ops.resolve(path, resolved); result < 0) return -result;
  FileInfo info{};
  if (const int result = ops.inspectPath(resolved, info); result < 0) return -result;
  return refusalOf(info);
}

int openAt(FileOps& ops, const std::string& path, OpenMode mode, RegularFile& file) {
  const int number = ops.open(path, mode);
  if (number < 0) return -number;
  file.descriptor = Descriptor(ops, number);
  return 0;
}

// A path that exists now although resolving it said that it leads nowhere is a link to an absent
// file, or was created by somebody else in between.
int createFile(FileOps& ops, const std::string& path, RegularFile& file) {
  file.path = path;
  int error = openAt(ops, path, OpenMode::kCreateNew, file);
  file.wasCreated = error == 0;
  if (error == EEXIST) error = openAt(ops, path, OpenMode::kCreate, file);
  if (error != 0) return error;
  std::string resolved;
  if (const int result = ops.resolve(path, resolved); result < 0) return -result;
  file.path = std::move(resolved);
  return 0;
}

int openLocated(FileOps& ops, const std::string& path, bool writable, RegularFile& file) {
  const int error = locateRegularFile(ops, path, file.path);
  if (error == ENOENT && writable) return createFile(ops, path, file);
  if (error != 0) return error;
  return openAt(ops, file.path, writable ? OpenMode::kUpdate : OpenMode::kRead, file);
}

int examineOpened(FileOps& ops, RegularFile& file) {
  FileInfo info{};
  if (const int result = ops.inspect(file.descriptor.number(), info); result < 0) return -result;
  file.size = info.size;
  return refusalOf(info);
}

}  // namespace

int openRegularFile(FileOps& ops, const std::string& path, bool writable, RegularFile& file) {
  file = {};
  file.isWritable = writable;
  int error = openLocated(ops, path, writable, file);
  if (error == 0) error = examineOpened(ops, file);
  if (error != 0 && file.descriptor.isOpen()) {
    removeIfLeftEmpty(ops, file);
    file.descriptor.close();
  }
  return error;
}

int removeRegularFile(FileOps& ops, const std::string& path) {
  std::string resolved;
  if (const int error = locateRegularFile(ops, path, resolved); error != 0) return error;
  return -ops.remove(resolved);
}

int removeIfLeftEmpty(FileOps& ops, const RegularFile& file) {
  if (!file.wasCreated) return 0;
  FileInfo opened{};
  if (const int result = ops.inspect(file.descriptor.number(), opened); result < 0) return -result;
  if (opened.size != 0) return 0;
  FileInfo there{};
  const int result = ops.inspectPath(file.path, there);
  if (result == -ENOENT) return 0;
  if (result < 0) return -result;
  if (there.device != opened.device || there.inode != opened.inode) return 0;
  return -ops.remove(file.path);
}

}  // namespace hxhost
