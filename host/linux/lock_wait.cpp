#include "host/linux/lock_wait.h"

#include <thread>

#include "host/linux/open_request.h"

namespace hxhost {
namespace {

std::chrono::milliseconds limitOf(const OpenRequest* request, std::chrono::milliseconds byDefault) {
  if (request == nullptr) return byDefault;
  return request->reservation() != nullptr ? std::chrono::milliseconds(0)
                                           : request->terms().lockWait;
}

}  // namespace

LockWait::LockWait(std::chrono::milliseconds byDefault)
    : request_(OpenRequest::current()), limit_(limitOf(request_, byDefault)) {}

LockWait::~LockWait() {
  if (request_ != nullptr && hasPaused_) request_->noteWait(waited());
}

// The limit is compared as it is: a sum with it, or what it is in nanoseconds, may pass the largest
// number.
bool LockWait::pause(std::chrono::microseconds length) {
  if (limit_.count() >= 0 && waited() >= limit_) return false;
  hasPaused_ = true;
  std::this_thread::sleep_for(length);
  return true;
}

std::chrono::milliseconds LockWait::waited() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin_);
}

}  // namespace hxhost
