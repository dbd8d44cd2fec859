#include "opening.h"

#include <sys/stat.h>

#include <exception>
#include <utility>

#include "module_library.h"
#include "records/lock_guard.h"
#include "records/status.h"
#include "remote_files.h"

namespace hxcrate {

namespace {

std::shared_ptr<hxhost::FileOutcome> outcomeOf(const hx::Store* root) {
  hx::FileHandle* file = hx::fileOf(root);
  return file != nullptr ? hxhost::LinuxHost::outcomeOf(file) : nullptr;
}

}  // namespace

Opening::Opening(std::shared_ptr<Engine> engine, std::string path, bool writable,
                 std::shared_ptr<const void> bytes)
    : engine_(std::move(engine)),
      bytes_(std::move(bytes)),
      path_(std::move(path)),
      writable_(writable),
      exceptionsAtOpening_(std::uncaught_exceptions()) {}

Opening::~Opening() {
  if (root_ == nullptr) return;
  engine_->reportFailureOf(path_, [this] {
    if (writable_ && isUnwinding()) abandon();
    isTold_ ? closeRoot() : close();
  });
}

void Opening::take(OpenedRoot root, std::u32string name) noexcept {
  root_ = root.release();
  name_ = std::move(name);
  if (engine_->remoteFile() == nullptr) outcome_ = outcomeOf(root_);
}

// Through the handle that the directory was read by.
bool Opening::isIn(int file) const {
  struct stat other {};
  if (outcome_ == nullptr || ::fstat(file, &other) != 0) return false;
  const hxhost::FileInfo& own = outcome_->opened();
  return own.device == other.st_dev && own.inode == other.st_ino;
}

bool Opening::isUnwinding() const noexcept {
  return std::uncaught_exceptions() > exceptionsAtOpening_;
}

std::optional<FileFailure> Opening::takeFailure() const {
  if (hxremote::RemoteFile* file = engine_->remoteFile()) return takeFailureOf(*file);
  return outcome_ != nullptr ? takeFailureOf(*outcome_, path_) : std::nullopt;
}

void Opening::fail(std::int32_t status, const std::string& member) const {
  if (update_ == Update::kAbandoned) throw Error(Errc::abandoned, path_, member);
  const Errc code = static_cast<Errc>(status);
  if (std::optional<FileFailure> failure = takeFailure()) {
    const bool isOfFile = outcome_ == nullptr || outcome_->isLost();
    throw Error(isOfFile ? Errc::fileFailed : code, path_, member, *failure);
  }
  throw Error(code, path_, member);
}

void Opening::commit(const std::string& place) {
  const hx::LockGuard lock(module()->lock);  // without it others may be in the middle of a write
  if (!lock.taken()) throw Error(Errc::notLocked, path_, place);
  if (writers_ > 0) throw Error(Errc::membersOpen, path_, place, "an item is open for writing");
  hx::FileHandle* file = hx::fileOf(root_);
  if (file == nullptr) return;
  writeBack(root_);
  if (hxhost::LinuxHost::commitUpdate(file)) return;
  update_ = Update::kLost;
  fail(static_cast<int>(Errc::fileFailed), place);
}

void Opening::abandon() {
  const hx::LockGuard lock(module()->lock);
  if (!lock.taken()) throw Error(Errc::notLocked, path_, "");
  update_ = Update::kAbandoned;
  if (hx::FileHandle* file = hx::fileOf(root_)) hxhost::LinuxHost::abandonUpdate(file);
}

void Opening::close() {
  if (root_ == nullptr) return;
  closeRoot();
  if (std::optional<FileFailure> failure = endFailure()) {
    throw Error(Errc::fileFailed, path_, "", *failure);
  }
}

// The module would keep a closed store in memory for a later open, which nobody can ask for when it
// has no file.
void Opening::closeRoot() {
  const std::lock_guard guard(engine_->openingMutex());
  const bool isDropped = isInMemory();
  hx::Store* root = std::exchange(root_, nullptr);
  isDropped ? root->closeAndDeleteStore(root) : root->closeStore(root);
  const bool isLost = outcome_ != nullptr && outcome_->isLost();
  if (!name_.empty()) {
    engine_->files().leave(name_, isLost ? std::nullopt : outcome_->closed());
  }
}

// What an abandoned update was lost by is no failure when the file is what it was.
std::optional<FileFailure> Opening::endFailure() const {
  if (outcome_ == nullptr) return std::nullopt;
  const bool isAbandoned = update_ == Update::kAbandoned;
  const bool isWanted = isAbandoned && outcome_->wasRolledBack();
  return isWanted ? std::nullopt : takeFailure();
}

}  // namespace hxcrate
