#pragma once

#include "host/kernel.h"

namespace hx {

// Holds the instance's lock until the end of the scope, if it could be taken.
class LockGuard {
 public:
  explicit LockGuard(Lock* lock)
      : lock_(lock), acquired_(lock->acquire(lock, 1, 1)), held_(acquired_ == 0) {}
  ~LockGuard() {
    if (held_) release();
  }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

  bool taken() const { return held_; }

  // What the host answered: nonzero when the lock was not taken.
  int32_t acquireResult() const { return acquired_; }

  // Lets go early and returns the host's answer.
  int32_t release() {
    held_ = false;
    return lock_->release(lock_);
  }

 private:
  Lock* lock_;
  int32_t acquired_;
  bool held_;
};

}  // namespace hx
