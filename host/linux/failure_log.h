// The last file failure of a host, kept until somebody asks. Safe for several threads.
#pragma once

#include <mutex>
#include <optional>
#include <string_view>

#include "host/linux/linux_host.h"

namespace hxhost {

class FailureLog {
 public:
  // Replaces what was kept. Without memory for the path the failure is kept without it.
  void record(int error, const char* operation, int64_t offset, std::string_view path) noexcept;

  std::optional<FileFailure> take();

 private:
  std::mutex mutex_;
  std::optional<FileFailure> last_;
};

}  // namespace hxhost
