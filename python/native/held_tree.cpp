#include "held_tree.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <stdexcept>

namespace hxpython {

namespace {

std::atomic<unsigned> forks{0};

}  // namespace

unsigned forkCount() noexcept {
  return forks.load(std::memory_order_relaxed);
}

void countForks() {
  pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
}

hxcrate::Session& sessionFor(hxcrate::Durability durability) {
  struct Known {
    unsigned forks;
    hxcrate::Session* session;  // never deleted: stores may be open until the process ends
  };
  static std::array<Known, 2> known{};
  Known& one = known[durability == hxcrate::Durability::full ? 0 : 1];
  if (one.session == nullptr || one.forks != forkCount()) {
    one = {forkCount(), new hxcrate::Session({.durability = durability})};
  }
  return *one.session;
}

void Handle::enlist() {
  const std::lock_guard guard(tree_->handlesMutex_);
  tree_->handles_.insert(this);
}

bool Handle::retire() noexcept {
  if (tree_->isForeign()) return false;
  const GilRelease released;
  const std::shared_lock lock(tree_->mutex_);
  const std::lock_guard guard(tree_->handlesMutex_);
  tree_->handles_.erase(this);
  shut();
  return true;
}

HeldTree::HeldTree(hxcrate::Store store, Reopening reopening, Py_buffer buffer)
    : store_(std::move(store)),
      reopening_(std::move(reopening)),
      isWritable_(store_.isWritable()),
      isUpdate_(isWritable_ && !reopening_.path.empty()),
      buffer_(buffer) {}

HeldTree::~HeldTree() {
  if (isForeign()) {
    leak(std::move(store_));
  } else if (store_.isOpen()) {
    if (isUpdate_ && PyErr_ResourceWarning(nullptr, 1, "the update of %s was never closed: undone",
                                           reopening_.path.c_str()) != 0) {
      PyErr_WriteUnraisable(nullptr);
    }
    std::error_code ignored;  // nobody is left to be told; the next open undoes it
    const GilRelease released;
    store_.abandon(ignored);
  }
  if (buffer_.obj != nullptr) PyBuffer_Release(&buffer_);
}

void HeldTree::requireOwnProcess() const {
  if (isForeign()) throw std::runtime_error("it was opened before the fork: open it again");
}

void HeldTree::shutHandles() noexcept {
  for (Handle* handle : handles_)
    handle->shut();
}

void HeldTree::close() {
  alone([&] {
    for (const Handle* handle : handles_) {
      if (handle->isWriting()) throw hxcrate::Error(hxcrate::Errc::membersOpen, store_.path(), "");
    }
    shutHandles();
    isUpdate_ ? store_.close() : store_.abandon();
  });
}

void HeldTree::undo() {
  alone([&] {
    shutHandles();
    store_.abandon();
  });
}

}  // namespace hxpython
