#include "tree.h"

#include <utility>

#include "host/linux/path_codec.h"

namespace hxcrate {

namespace {

std::string resolvePath(hx::Store* root) {
  if (hx::openFile(root) == nullptr) return "";
  char32_t path[hx::HX_PATH_CAPACITY];
  int32_t length = hx::HX_PATH_CAPACITY;
  root->path(root, path, &length);
  return hxhost::describePath(path, length);
}

// The lock under which the module uses its files.
class ModuleLock {
 public:
  explicit ModuleLock(hx::Lock* lock) : lock_(lock), isTaken_(lock->acquire(lock, 1, 1) == 0) {}
  ~ModuleLock() {
    if (isTaken_) lock_->release(lock_);
  }
  ModuleLock(const ModuleLock&) = delete;
  ModuleLock& operator=(const ModuleLock&) = delete;

  bool isTaken() const { return isTaken_; }

 private:
  hx::Lock* lock_;
  bool isTaken_;
};

}  // namespace

Tree::Tree(std::shared_ptr<Engine> engine, OpenedRoot root, std::string path, bool writable,
           std::shared_ptr<const void> bytes)
    : engine_(std::move(engine)),
      bytes_(std::move(bytes)),
      path_(std::move(path)),
      filePath_(resolvePath(root.get())),
      writable_(writable),
      root_(root.release()) {}

Tree::~Tree() {
  engine_->reportFailureOf(path_, [this] { close(); });
}

std::optional<FileFailure> Tree::takeFailure() {
  if (filePath_.empty()) return std::nullopt;
  return engine_->takeFailure(filePath_);
}

void Tree::fail(std::int32_t status, const std::string& member) {
  const Errc code = static_cast<Errc>(status);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(code, path_, member, *failure);
  }
  throw Error(code, path_, member);
}

bool Tree::abandonUpdate() {
  hx::FileHandle* file = writable_ ? hx::openFile(root_) : nullptr;
  if (file == nullptr) return false;
  const ModuleLock lock(module()->lock);  // without it others may be in the middle of a write
  if (!lock.isTaken()) throw Error(Errc::notLocked, path_, "");
  hxhost::LinuxHost::abandonUpdate(file);
  return true;
}

void Tree::close() {
  if (root_ == nullptr) return;
  const std::lock_guard guard(engine_->openingMutex());
  // The module would keep a closed store in memory for a later open, which nobody can ask for.
  const bool isDropped = isInMemory();
  hx::Store* root = std::exchange(root_, nullptr);
  isDropped ? root->closeAndDeleteStore(root) : root->closeStore(root);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(Errc::fileFailed, path_, "", *failure);
  }
}

}  // namespace hxcrate
