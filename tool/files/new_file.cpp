#include "new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "tool/report/report.h"

namespace tool {

namespace {

constexpr int kMostTries = 100;
constexpr mode_t kUsual = 0666;    // less what the process masks
constexpr mode_t kPrivate = 0600;  // until it gets rights of its own

bool leadsTo(const Descriptor& directory, const std::string& name, const Descriptor& file) {
  struct stat status {};
  const auto there = inspect(directory, name);
  return there && ::fstat(file.number(), &status) == 0 && isSameFile(*there, status);
}

// Not open where there are no such files, or where they can't get a name later.
Descriptor tryOpenNameless(const Descriptor& directory, mode_t mode) {
  Descriptor file(
      ::openat(directory.number(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC | O_NOFOLLOW, mode));
  return ::access(file.asPath().c_str(), F_OK) == 0 ? std::move(file) : Descriptor();
}

bool linkNameless(const Descriptor& file, const Descriptor& directory, const std::string& name) {
  return ::linkat(AT_FDCWD, file.asPath().c_str(), directory.number(), name.c_str(),
                  AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

NewFile::NewFile(const Descriptor& directory, std::string name, std::string path, Options options)
    : NewFile(directory, std::move(name), std::move(path),
              options.replaced || options.readers != nullptr ? kPrivate : kUsual) {
  replaced_ = options.replaced;
  if (options.readers != nullptr) options.readers->bound(file_, path_);
  if (replaced_) takeRightsOfReplaced();
}

NewFile::NewFile(const Descriptor& directory, std::string name, std::string path, mode_t mode)
    : directory_(directory),
      name_(std::move(name)),
      path_(std::move(path)),
      file_(tryOpenNameless(directory, mode)) {
  if (!file_.isOpen()) createAside(mode);
}

NewFile::~NewFile() {
  if (isMineStill()) ::unlinkat(directory_.number(), aside_.c_str(), 0);
}

// One that somebody's removal of leftovers was quicker to lock is left to that.
void NewFile::createAside(mode_t mode) {
  for (int i = 0; i < kMostTries; ++i) {
    const std::string name = hxcrate::makeUnfinishedName();
    file_ = openBeneath(directory_, name, O_RDWR | O_CREAT | O_EXCL, mode);
    if (!file_.isOpen() && errno != EEXIST) throw systemFailure(path_, "create");
    if (!file_.isOpen() || !hxcrate::lockUnfinished(file_.number()) ||
        !leadsTo(directory_, name, file_))
      continue;
    aside_ = name;
    return;
  }
  throw systemFailure(path_, "create");
}

// Before there is any byte that somebody could read. The name may lead to another file by now, with
// rights that somebody chose.
void NewFile::takeRightsOfReplaced() {
  const Descriptor existing = openBeneath(directory_, name_, O_PATH);
  struct stat status {};
  if (!existing.isOpen() || ::fstat(existing.number(), &status) != 0) {
    throw systemFailure(path_, "inspect");
  }
  if (!isSameFile(status, *replaced_)) {
    throw Failure(ExitCode::inputOutput, path_, "", "somebody gave its name to another file");
  }
  FileRights(existing, path_).give(file_, path_);
}

bool NewFile::isMineStill() const {
  return !aside_.empty() && leadsTo(directory_, aside_, file_);
}

bool NewFile::deliver() {
  if (!sync(file_)) throw systemFailure(path_, "sync");
  if (!deliverUnsynced()) return false;
  if (!sync(directory_)) throw systemFailure(path_, "sync its folder");
  return true;
}

bool NewFile::deliverUnsynced() {
  throwIfInterrupted();
  if (!aside_.empty() && !isMineStill()) {
    throw Failure(ExitCode::inputOutput, path_, "", "somebody took the unfinished file away");
  }
  const bool isDone = replaced_ ? replace() : giveName();
  if (!isDone && errno != EEXIST) throw systemFailure(path_, "give the file its name");
  return isDone;
}

// False with errno set.
bool NewFile::giveName() {
  if (aside_.empty()) return linkNameless(file_, directory_, name_);
  if (!moveFile(directory_, aside_, directory_, name_, false)) return false;
  aside_.clear();
  return true;
}

// The same. What is replaced was there until now.
bool NewFile::replace() {
  if (aside_.empty() && !linkAside()) return false;
  const auto there = inspect(directory_, name_);
  if (!there || !isSameFile(*there, *replaced_)) {
    errno = EEXIST;
    return false;
  }
  if (!moveFile(directory_, aside_, directory_, name_, true)) return false;
  aside_.clear();
  return true;
}

bool NewFile::linkAside() {
  if (!hxcrate::lockUnfinished(file_.number())) return false;
  for (int i = 0; i < kMostTries && aside_.empty(); ++i) {
    const std::string name = hxcrate::makeUnfinishedName();
    if (linkNameless(file_, directory_, name)) aside_ = name;
    if (aside_.empty() && errno != EEXIST) return false;
  }
  return !aside_.empty();
}

Descriptor openNameless(const Descriptor& directory, const std::string& path) {
  Descriptor file = tryOpenNameless(directory, kPrivate);
  if (file.isOpen()) return file;
  const std::string name = hxcrate::makeUnfinishedName();
  file = openBeneath(directory, name, O_RDWR | O_CREAT | O_EXCL, kPrivate);
  if (!file.isOpen() || ::unlinkat(directory.number(), name.c_str(), 0) != 0) {
    throw systemFailure(path, "create a file in it");
  }
  return file;
}

}  // namespace tool
