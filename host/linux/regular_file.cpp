#include "host/linux/regular_file.h"

#include <algorithm>
#include <cerrno>

namespace hxhost {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(ops_, other.ops_);
  std::swap(number_, other.number_);
  return *this;
}

int Descriptor::close() {
  if (!isOpen()) return 0;
  return ops_->close(std::exchange(number_, -1));
}

namespace {

int refusalOf(const FileInfo& info) {
  if (info.isRegular) return info.size > kLongestFile ? EFBIG : 0;
  return info.isDirectory ? EISDIR : ENOTSUP;
}

int openAt(FileOps& ops, const std::string& path, OpenMode mode, RegularFile& file) {
  const int number = ops.open(path, mode);
  if (number < 0) return -number;
  file.descriptor = Descriptor(ops, number);
  file.isWritable = mode != OpenMode::kRead;
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
  error = ops.resolve(path, resolved);
  if (error == 0) file.path = std::move(resolved);
  return error;
}

bool isRefusalToWrite(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY;
}

int openLocated(FileOps& ops, Purpose purpose, RegularFile& file) {
  const int error = openAt(ops, file.path, OpenMode::kUpdate, file);
  if (purpose != Purpose::kRead || !isRefusalToWrite(error)) return error;
  return openAt(ops, file.path, OpenMode::kRead, file);
}

}  // namespace

int locateRegularFile(FileOps& ops, const std::string& path, RegularFile& file) {
  std::string resolved;
  if (const int error = ops.resolve(path, resolved); error != 0) return error;
  if (const int error = ops.inspectPath(resolved, file.info); error != 0) return error;
  if (const int error = refusalOf(file.info); error != 0) return error;
  file.path = std::move(resolved);
  return 0;
}

int openRegularFile(FileOps& ops, const std::string& path, Purpose purpose, RegularFile& file) {
  const bool isAbsent = file.path.empty();
  const int error = isAbsent ? createFile(ops, path, file) : openLocated(ops, purpose, file);
  if (error != 0) return error;
  const int unseen = ops.inspect(file.descriptor.number(), file.info);
  return unseen != 0 ? unseen : refusalOf(file.info);
}

int inspectAgain(FileOps& ops, RegularFile& file) {
  if (const int error = ops.inspect(file.descriptor.number(), file.info); error != 0) {
    return error;
  }
  FileInfo there{};
  if (const int error = ops.inspectPath(file.path, there); error != 0) return error;
  return isSameFile(there, file.info) ? 0 : ENOENT;
}

bool isSameFile(const FileInfo& a, const FileInfo& b) {
  return a.device == b.device && a.inode == b.inode;
}

int removeIfLeftEmpty(FileOps& ops, RegularFile& file) {
  if (!file.wasCreated) return 0;
  const int error = inspectAgain(ops, file);
  if (error == ENOENT) return 0;
  if (error != 0 || file.info.size != 0) return error;
  return ops.remove(file.path, file.descriptor.number());
}

std::string directoryOf(const std::string& path) {
  return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
}

}  // namespace hxhost
