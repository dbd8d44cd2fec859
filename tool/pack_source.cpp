#include "pack_source.h"

#include <fmt/format.h>

#include <utility>

#include "directory.h"
#include "hxcrate/store.hpp"
#include "report.h"

namespace tool {

namespace {

const char* describeKind(mode_t mode) {
  if (S_ISLNK(mode)) return "skipped: a symbolic link";
  if (S_ISFIFO(mode)) return "skipped: a FIFO";
  if (S_ISSOCK(mode)) return "skipped: a socket";
  return "skipped: a device";
}

class TreeScanner {
 public:
  TreeScanner(const std::string& directory, const std::optional<struct stat>& except)
      : cursor_(directory), except_(except) {}

  Source scan() {
    levels_.push_back({list(), 0});
    while (!levels_.empty()) {
      Level& level = levels_.back();
      if (level.next < level.names.size()) {
        take(std::move(level.names[level.next++]));
      } else {
        leave();
      }
    }
    if (refusals_ > 0) {
      throw Failure(ExitCode::inputOutput, cursor_.path(), "",
                    fmt::format("{} can't be kept, nothing was packed",
                                refusals_ == 1 ? "1 entry" : fmt::format("{} entries", refusals_)));
    }
    return std::move(source_);
  }

 private:
  struct Level {
    std::vector<std::string> names;
    std::size_t next;
  };

  void refuse(const std::string& path, std::string_view reason) {
    ++refusals_;
    complain(path, "", reason);
  }

  std::vector<std::string> list() {
    auto names = listNames(cursor_.descriptor());
    if (!names) refuse(cursor_.path(), systemReason());
    return names ? *std::move(names) : std::vector<std::string>();
  }

  void take(std::string name) {
    const std::string path = cursor_.pathTo(name);
    const std::optional<struct stat> status = inspect(cursor_.descriptor(), name);
    if (!status) return refuse(path, systemReason());
    if (except_ && isSameFile(*status, *except_)) return complain(path, "", "skipped: the store");
    const bool isDirectory = S_ISDIR(status->st_mode);
    if (!isDirectory && !S_ISREG(status->st_mode)) {
      source_.isWhole = false;
      return complain(path, "", describeKind(status->st_mode));
    }
    if (name.size() > hxcrate::kNameCapacity) {
      refuse(path, fmt::format("a name of {} bytes, at most {} fit", name.size(),
                               hxcrate::kNameCapacity));
    }
    if (isDirectory) {
      enter(std::move(name));
    } else {
      takeFile(std::move(name), *status);
    }
  }

  void takeFile(std::string name, const struct stat& status) {
    if (status.st_size > hxcrate::kItemCapacity) {
      refuse(cursor_.pathTo(name),
             fmt::format("{} bytes, at most {} fit", status.st_size, hxcrate::kItemCapacity));
    }
    source_.steps.push_back({SourceStep::Kind::file, std::move(name), status});
  }

  void enter(std::string name) {
    if (!cursor_.enter(name)) return refuse(cursor_.pathTo(name), systemReason());
    source_.steps.push_back({SourceStep::Kind::enterDirectory, std::move(name)});
    levels_.push_back({list(), 0});
  }

  void leave() {
    levels_.pop_back();
    if (levels_.empty()) return;
    source_.steps.push_back({SourceStep::Kind::leaveDirectory, ""});
    cursor_.leave();
  }

  DirectoryCursor cursor_;
  const std::optional<struct stat>& except_;
  std::vector<Level> levels_;
  Source source_;
  std::size_t refusals_ = 0;
};

}  // namespace

Source scanTree(const std::string& directory, const std::optional<struct stat>& except) {
  return TreeScanner(directory, except).scan();
}

}  // namespace tool
