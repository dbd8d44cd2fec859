#include "pack_source.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "directory.h"
#include "hxcrate/store.hpp"
#include "tool/manifest/manifest.h"
#include "tool/report/report.h"

namespace tool {

namespace {

const char* describeKind(mode_t mode) {
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}

class TreeScanner {
 public:
  TreeScanner(const SourceList& list, const ScanOptions& options,
              const std::optional<struct stat>& except)
      : cursor_(list.root),
        list_(list),
        selection_(options.selected),
        skip_(options.skip),
        withAttributes_(options.withAttributes),
        except_(except) {}

  Source scan() {
    levels_.push_back({listEntries(&list_.top), &list_.top, true});
    if (!levels_.back().names) refuse(cursor_.path(), systemReason());
    struct stat status {};
    if (list_.top.isNamed && ::fstat(cursor_.descriptor().number(), &status) == 0) {
      source_.top = status;
    }
    while (!levels_.empty()) {
      Level& level = levels_.back();
      if (level.names && level.next < level.names->size()) {
        take(std::move((*level.names)[level.next++]));
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
    std::optional<std::vector<std::string>> names;
    const SourceEntry* entry;  // null: below one that is meant as a whole
    bool isMeant;              // it is kept even when it holds nothing
    std::size_t step = 0;      // that entered it
    std::size_t next = 0;
  };

  // True when the rest of the entry is of no use, be it that it is left out.
  bool refuse(const std::string& path, const std::string& reason) {
    if (skip_) {
      complainOfSkipped(path, reason);
      source_.isWhole = false;
      return true;
    }
    ++refusals_;
    complain(path, "", reason);
    return false;
  }

  // Of the current directory. Null with errno set.
  std::optional<std::vector<std::string>> listEntries(const SourceEntry* entry) const {
    if (entry == nullptr || entry->isWhole) return listNames(cursor_.descriptor());
    std::vector<std::string> names;
    for (const auto& [name, below] : entry->below)
      names.push_back(name);
    return names;
  }

  // What the list says of an entry of the current directory.
  const SourceEntry* entryOf(const std::string& name) const {
    const SourceEntry* const entry = levels_.back().entry;
    return entry == nullptr || entry->isWhole ? nullptr : &entry->below.find(name)->second;
  }

  void take(std::string name) {
    const std::string path = cursor_.pathTo(name);
    const std::optional<struct stat> status = inspect(cursor_.descriptor(), name);
    if (!status) return void(refuse(path, systemReason()));
    const bool isDirectory = S_ISDIR(status->st_mode);
    const auto verdict = selection_.judge(placeOf(name), isDirectory);
    if (verdict == Selection::Verdict::no) return;
    if (except_ && isSameFile(*status, *except_)) return complain(path, "", "skipped: the store");
    const bool isLink = withAttributes_ && S_ISLNK(status->st_mode);
    if (!isDirectory && !isLink && !S_ISREG(status->st_mode)) {
      const SourceEntry* const entry = entryOf(name);
      if (S_ISLNK(status->st_mode) && entry != nullptr && !entry->below.empty()) {
        return void(refuse(path, "a symbolic link on the way to a path that is named"));
      }
      source_.isWhole = false;
      return complainOfSkipped(path, describeKind(status->st_mode));
    }
    if (withAttributes_ && placeOf(name) == kManifestName) {
      return void(refuse(path, "attributes are kept under that name"));
    }
    if (name.size() > hxcrate::kNameCapacity &&
        refuse(path, fmt::format("a name of {} bytes, at most {} fit", name.size(),
                                 hxcrate::kNameCapacity))) {
      return;
    }
    if (isDirectory) {
      enter(std::move(name), *status, verdict == Selection::Verdict::yes);
    } else if (isLink) {
      takeLink(std::move(name), *status);
    } else {
      takeFile(std::move(name), *status);
    }
  }

  // In the store.
  std::string placeOf(const std::string& name) const {
    return place_.empty() ? name : place_ + "/" + name;
  }

  void takeFile(std::string name, const struct stat& status) {
    const std::string path = cursor_.pathTo(name);
    if (status.st_size > hxcrate::kItemCapacity) {
      return void(refuse(
          path, fmt::format("{} bytes, at most {} fit", status.st_size, hxcrate::kItemCapacity)));
    }
    if (::faccessat(cursor_.descriptor().number(), name.c_str(), R_OK,
                    AT_EACCESS | AT_SYMLINK_NOFOLLOW) != 0) {
      return void(refuse(path, systemReason()));
    }
    source_.steps.push_back({SourceStep::Kind::file, std::move(name), status});
  }

  void takeLink(std::string name, const struct stat& status) {
    const auto target = readLink(cursor_.descriptor(), name);
    if (!target) return void(refuse(cursor_.pathTo(name), systemReason()));
    source_.steps.push_back({SourceStep::Kind::link, std::move(name), status, 0, *target});
  }

  void enter(std::string name, const struct stat& status, bool isMeant) {
    const SourceEntry* const entry = entryOf(name);
    const std::string path = cursor_.pathTo(name);
    if (!cursor_.enter(name)) return void(refuse(path, systemReason()));
    auto names = listEntries(entry);
    if (!names) {
      refuse(path, systemReason());
      return cursor_.leave();
    }
    place_ = placeOf(name);
    levels_.push_back({std::move(names), entry, isMeant && (entry == nullptr || entry->isNamed),
                       source_.steps.size()});
    source_.steps.push_back({SourceStep::Kind::enterDirectory, std::move(name), status});
  }

  void leave() {
    const Level left = std::move(levels_.back());
    levels_.pop_back();
    if (levels_.empty()) return;
    if (!left.isMeant && source_.steps.size() == left.step + 1) {
      source_.steps.pop_back();
    } else {
      source_.steps[left.step].end = source_.steps.size();
      source_.steps.push_back({SourceStep::Kind::leaveDirectory, ""});
    }
    cursor_.leave();
    place_.resize(place_.find('/') == std::string::npos ? 0 : place_.rfind('/'));
  }

  DirectoryCursor cursor_;
  const SourceList& list_;
  const Selection selection_;
  const bool skip_;
  const bool withAttributes_;
  const std::optional<struct stat>& except_;
  std::vector<Level> levels_;
  std::string place_;  // of the current directory in the store
  Source source_;
  std::size_t refusals_ = 0;
};

}  // namespace

void complainOfSkipped(const std::string& path, const std::string& reason) {
  complain(path, "", "skipped: " + reason);
}

Source scanTree(const SourceList& list, const ScanOptions& options,
                const std::optional<struct stat>& except) {
  return TreeScanner(list, options, except).scan();
}

}  // namespace tool
