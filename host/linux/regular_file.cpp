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

int openDirectory(FileOps& ops, RegularFile& file) {
  const int number = ops.openDirectory(directoryOf(file.path));
  if (number < 0) return -number;
  file.directory = Descriptor(ops, number);
  return 0;
}

int openInDirectory(FileOps& ops, OpenMode mode, RegularFile& file) {
  const int number = ops.open(file.directory.number(), nameOf(file.path), mode);
  if (number < 0) return -number;
  file.descriptor = Descriptor(ops, number);
  file.isWritable = mode != OpenMode::kRead;
  return 0;
}

// A path that exists now although resolving it said that it leads nowhere is a link to an absent
// file, or was created by somebody else in between.
int createFile(FileOps& ops, const std::string& path, RegularFile& file) {
  if (path.ends_with('/')) return EISDIR;
  file.path = path;
  int error = openDirectory(ops, file);
  if (error != 0) return error;
  error = openInDirectory(ops, OpenMode::kCreateNew, file);
  file.wasCreated = error == 0;
  if (error == EEXIST) error = openInDirectory(ops, OpenMode::kCreate, file);
  if (error != 0) return error;
  std::string resolved;
  error = ops.resolve(path, resolved);
  if (error != 0) return error;
  file.path = std::move(resolved);
  return file.wasCreated ? 0 : openDirectory(ops, file);  // a link may have led to another one
}

bool isRefusalToWrite(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY;
}

int openLocated(FileOps& ops, Purpose purpose, RegularFile& file) {
  if (const int error = openDirectory(ops, file); error != 0) return error;
  const int error = openInDirectory(ops, OpenMode::kUpdate, file);
  if (purpose != Purpose::kRead || !isRefusalToWrite(error)) return error;
  return openInDirectory(ops, OpenMode::kRead, file);
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
  FileInfo named{};
  if (const int error = ops.inspectPath(file.path, there); error != 0) return error;
  const int error = ops.inspectName(file.directory.number(), nameOf(file.path), named);
  if (error != 0) return error;
  return isSameFile(there, file.info) && isSameFile(named, file.info) ? 0 : ENOENT;
}

bool isSameFile(const FileInfo& a, const FileInfo& b) {
  return a.device == b.device && a.inode == b.inode;
}

int removeIfLeftEmpty(FileOps& ops, RegularFile& file) {
  if (!file.wasCreated) return 0;
  const int error = inspectAgain(ops, file);
  if (error == ENOENT) return 0;
  if (error != 0 || file.info.size != 0) return error;
  return removeName(ops, file);
}

int removeName(FileOps& ops, const RegularFile& file) {
  return ops.remove(file.directory.number(), nameOf(file.path), file.descriptor.number());
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

std::string nameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace hxhost
