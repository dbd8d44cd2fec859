#include "file_rights.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

#include "tool/report/report.h"

namespace tool {

namespace {

constexpr const char* kAcl = "system.posix_acl_access";
constexpr mode_t kSetId = S_ISUID | S_ISGID | S_ISVTX;
constexpr uid_t kSameOwner = std::numeric_limits<uid_t>::max();

bool meansNone(int error) {
  return error == ENODATA || error == ENOTSUP;
}

mode_t maskOfProcess() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// Through its path, since the descriptor may be for that alone.
std::optional<std::string> readAcl(const Descriptor& file, const std::string& path) {
  std::string acl(std::numeric_limits<std::uint16_t>::max() + 1, '\0');
  const ssize_t length = ::getxattr(file.asPath().c_str(), kAcl, acl.data(), acl.size());
  if (length < 0 && !meansNone(errno)) throw systemFailure(path, "read its access rights");
  if (length < 0) return std::nullopt;
  acl.resize(static_cast<std::size_t>(length));
  return acl;
}

}  // namespace

FileRights::FileRights(const Descriptor& file, const std::string& path) {
  if (::fstat(file.number(), &status_) != 0) throw systemFailure(path, "inspect");
  acl_ = readAcl(file, path);
}

void FileRights::give(const Descriptor& file, const std::string& path) const {
  if (!giveOwner(file)) throw systemFailure(path, "keep its owner and group");
  if (!giveAcl(file)) throw systemFailure(path, "keep its access rights");
  if (::fchmod(file.number(), status_.st_mode & 07777 & ~kSetId) != 0) {
    throw systemFailure(path, "keep its mode");
  }
}

void FileRights::bound(const Descriptor& file, const std::string& path) const {
  mode_t mode = status_.st_mode & 0666 & ~maskOfProcess();
  struct stat made {};
  if (::fstat(file.number(), &made) != 0) throw systemFailure(path, "inspect");
  // Without its group, whose members become others, all but the owner may do what both that group
  // and the others may; what the group may does not show in the mode when there is an ACL.
  const bool hasGroup =
      made.st_gid == status_.st_gid || ::fchown(file.number(), kSameOwner, status_.st_gid) == 0;
  const mode_t shared = mode & 0007 & (mode >> 3);
  if (!hasGroup) mode = (mode & 0700) | shared << 3 | shared;
  if (!giveAcl(file) || (!hasGroup && acl_)) mode &= 0600;
  if (::fchmod(file.number(), mode) != 0) throw systemFailure(path, "set its mode");
}

bool FileRights::giveOwner(const Descriptor& file) const {
  struct stat made {};
  if (::fstat(file.number(), &made) != 0) return false;
  if (made.st_uid == status_.st_uid && made.st_gid == status_.st_gid) return true;
  return ::fchown(file.number(), status_.st_uid, status_.st_gid) == 0;
}

// The folder may have given the file one of its own.
bool FileRights::giveAcl(const Descriptor& file) const {
  if (acl_) return ::fsetxattr(file.number(), kAcl, acl_->data(), acl_->size(), 0) == 0;
  return ::fremovexattr(file.number(), kAcl) == 0 || meansNone(errno);
}

}  // namespace tool
