#include "write_limits.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "tool/report/report.h"

namespace tool {

void requireRoom(const Descriptor& directory, std::int64_t bytes, const std::string& path) {
  struct statvfs status {};
  if (::fstatvfs(directory.number(), &status) != 0) throw systemFailure(path, "inspect its disk");
  if (status.f_blocks == 0) return;  // it does not tell
  const std::uint64_t blocks = ::geteuid() == 0 ? status.f_bfree : status.f_bavail;
  const std::uint64_t wanted = static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
  if (wanted / status.f_frsize < blocks || wanted <= blocks * status.f_frsize) return;
  throw Failure(ExitCode::inputOutput, path, "",
                fmt::format("{} bytes would be written, and there is room for {}", bytes,
                            blocks * status.f_frsize));
}

void requireWritable(const Descriptor& directory, const std::string& path) {
  if (::faccessat(directory.number(), ".", W_OK | X_OK, AT_EACCESS) == 0) return;
  throw systemFailure(path, "create");
}

void OwnBytes::requireRead(const hxcrate::Store& store) const {
  constexpr std::int64_t kTimes = 16;
  constexpr std::int64_t kAnyway = 16 << 20;
  const auto length = store.openedLength();
  if (!length || allowsShared() || store.bytesRead() / kTimes <= *length + kAnyway) return;
  throw Failure(ExitCode::damaged, store.path(), "",
                "its items share pages that lead to damage: what follows is not looked at");
}

void OwnBytes::require(const std::string& path, std::int64_t length, std::int64_t bytes) const {
  if (bytes > most_.value_or(kUnlimited)) {
    throw Failure(ExitCode::inputOutput, path, "",
                  fmt::format("its items have more than the {} bytes allowed", *most_));
  }
  if (bytes <= length || allowsShared()) return;
  throw Failure(ExitCode::damaged, path, "",
                fmt::format("its items have more bytes than the file's {}, so they share pages{}",
                            length, most_ ? "; --max-bytes allows it" : ""));
}

Descriptor openOrAbove(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  if (::access(path.c_str(), F_OK) == 0) return openDirectory(path);
  Descriptor parent = locateFile(path).directory;
  requireWritable(parent, path);
  return parent;
}

}  // namespace tool
