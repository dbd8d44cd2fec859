// One wait for the locks of a file, however many of them it takes.
#pragma once

#include <chrono>

namespace hxhost {

class OpenRequest;

// As long as the thread's request says, else the given time; below zero: for ever. A request with a
// reservation has waited already. The request is told how long it was.
class LockWait {
 public:
  explicit LockWait(std::chrono::milliseconds byDefault);
  ~LockWait();
  LockWait(const LockWait&) = delete;
  LockWait& operator=(const LockWait&) = delete;

  // Sleeps a little; false when the wait is over.
  bool pause(std::chrono::microseconds length);

 private:
  using Clock = std::chrono::steady_clock;

  std::chrono::milliseconds waited() const;

  OpenRequest* const request_;
  const std::chrono::milliseconds limit_;
  const Clock::time_point begin_ = Clock::now();
  bool hasPaused_ = false;
};

}  // namespace hxhost
