#include "mount/mount_log.h"

#include <syslog.h>
#include <unistd.h>

#include <string>

namespace mounted {

namespace {

bool toSystem = false;  // set before there are threads

}  // namespace

void useSystemLog() {
  ::openlog("hxcrate-mount", LOG_PID, LOG_DAEMON);
  toSystem = true;
}

void say(std::string_view line) {
  if (toSystem) {
    ::syslog(LOG_WARNING, "%.*s", static_cast<int>(line.size()), line.data());
    return;
  }
  const std::string whole = "hxcrate-mount: " + std::string(line) + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
}

}  // namespace mounted
