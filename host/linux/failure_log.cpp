#include "host/linux/failure_log.h"

#include <new>
#include <utility>

namespace hxhost {

void FailureLog::record(int error, const char* operation, int64_t offset,
                        std::string_view path) noexcept {
  const std::lock_guard guard(mutex_);
  last_ = FileFailure{error, operation, offset, {}};  // the names of operations need no memory
  try {
    last_->path = path;
  } catch (const std::bad_alloc&) {
  }
}

std::optional<FileFailure> FailureLog::take() {
  const std::lock_guard guard(mutex_);
  return std::exchange(last_, std::nullopt);
}

}  // namespace hxhost
