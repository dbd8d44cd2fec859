#include "opening.h"

#include <utility>

#include "records/lock_guard.h"

namespace hxcrate {

namespace {

std::shared_ptr<hxhost::FileOutcome> outcomeOf(hx::Store* root) {
  hx::FileHandle* file = hx::fileOf(root);
  return file != nullptr ? hxhost::LinuxHost::outcomeOf(file) : nullptr;
}

}  // namespace

Opening::Opening(std::shared_ptr<Engine> engine, OpenedRoot root, std::string path, bool writable,
                 std::shared_ptr<const void> bytes)
    : engine_(std::move(engine)),
      bytes_(std::move(bytes)),
      path_(std::move(path)),
      outcome_(outcomeOf(root.get())),
      writable_(writable),
      root_(root.release()) {}

Opening::~Opening() {
  engine_->reportFailureOf(path_, [this] { close(); });
}

std::optional<FileFailure> Opening::takeFailure() {
  return outcome_ != nullptr ? takeFailureOf(*outcome_, path_) : std::nullopt;
}

void Opening::fail(std::int32_t status, const std::string& member) {
  const Errc code = static_cast<Errc>(status);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(code, path_, member, *failure);
  }
  throw Error(code, path_, member);
}

bool Opening::abandonUpdate() {
  if (!writable_) return false;
  const hx::LockGuard lock(module()->lock);  // without it others may be in the middle of a write
  if (!lock.taken()) throw Error(Errc::notLocked, path_, "");
  hx::FileHandle* file = hx::fileOf(root_);
  if (file != nullptr) hxhost::LinuxHost::abandonUpdate(file);
  return file != nullptr;
}

void Opening::close() {
  if (root_ == nullptr) return;
  const std::lock_guard guard(engine_->openingMutex());
  // The module would keep a closed store in memory for a later open, which nobody can ask for.
  const bool isDropped = isInMemory();
  if (auto current = outcomeOf(root_))
    outcome_ = std::move(current);  // readers may get an updater's
  hx::Store* root = std::exchange(root_, nullptr);
  isDropped ? root->closeAndDeleteStore(root) : root->closeStore(root);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(Errc::fileFailed, path_, "", *failure);
  }
}

}  // namespace hxcrate
