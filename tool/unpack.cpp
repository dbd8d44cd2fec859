// hxcrate unpack: a store file becomes a tree of directories.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "byte_pump.h"
#include "command_line.h"
#include "commands.h"
#include "directory.h"
#include "member_selection.h"
#include "new_file.h"
#include "store_walk.h"

namespace tool {

namespace {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

struct UnpackOptions {
  std::string store;
  std::string directory;
  std::vector<std::string> paths;
  std::int64_t maxEntries = kUnlimited;
  std::int64_t maxBytes = kUnlimited;
  bool overwrite = false;
  bool dryRun = false;
};

bool isFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

// Ends the command, unlike what befalls one entry.
class QuotaFailure : public Failure {
 public:
  using Failure::Failure;
};

// What may still be made.
class Quota {
 public:
  explicit Quota(const UnpackOptions& options) : options_(options) {}

  std::int64_t entries() const { return entries_; }
  std::int64_t bytes() const { return bytes_; }

  // Before an entry is made of `place`, and before its bytes are written.
  void takeEntry(const std::string& place) {
    if (entries_ == options_.maxEntries) {
      fail(place, "is beyond the " + std::to_string(options_.maxEntries) + " entries allowed");
    }
    ++entries_;
  }
  void takeBytes(const std::string& place, std::int64_t bytes) {
    if (bytes > options_.maxBytes - bytes_) {
      fail(place, "its " + std::to_string(bytes) + " bytes go beyond the " +
                      std::to_string(options_.maxBytes) + " allowed");
    }
    bytes_ += bytes;
  }

 private:
  [[noreturn]] void fail(const std::string& place, const std::string& reason) const {
    throw QuotaFailure(ExitCode::partial, options_.store, place, reason + "; stopped");
  }

  const UnpackOptions& options_;
  std::int64_t entries_ = 0;
  std::int64_t bytes_ = 0;
};

// Nothing is made outside the directory, whatever names the store holds and whatever links lie
// there. Each entry that can't be unpacked is named on standard error, and the others go on.
class Unpacker {
 public:
  Unpacker(const UnpackOptions& options, hxcrate::Store store, Progress& progress)
      : options_(options),
        selection_(options.paths),
        walk_(std::move(store)),
        quota_(options),
        pump_(&progress) {}

  ExitCode unpack() {
    if (!options_.dryRun || ::access(options_.directory.c_str(), F_OK) == 0) {
      cursor_.emplace(options_.directory);
      tidyUp();
    }
    for (auto event = walk_.next(); event != StoreWalk::Event::end; event = walk_.next()) {
      throwIfInterrupted();
      if (event == StoreWalk::Event::leave) {
        leaveStore();
      } else if (selection_.wants(walk_.place(), event == StoreWalk::Event::store)) {
        take(event);
      }
    }
    options_.dryRun ? announce() : syncAll();
    return outcome_;
  }

 private:
  void take(StoreWalk::Event event) {
    try {
      if (!isFileName(walk_.name())) return leaveOut("no file can have this name");
      quota_.takeEntry(walk_.place());
      event == StoreWalk::Event::item ? unpackItem() : enterStore();
    } catch (const QuotaFailure&) {
      throw;
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = ExitCode::partial;
    } catch (const Failure& failure) {
      failure.print();
      outcome_ = ExitCode::partial;
    }
  }

  void leaveOut(std::string_view reason) {
    complain(options_.store, walk_.place(), reason);
    outcome_ = ExitCode::partial;
  }

  // Under --dry-run the directories that do not exist are gone through by their number.
  bool isSomewhere() const { return cursor_.has_value() && missing_ == 0; }

  void enterStore() {
    const std::string name = walk_.name();
    walk_.enter();
    try {
      enterDirectory(name);
    } catch (...) {
      walk_.abandon();
      throw;
    }
  }

  void leaveStore() {
    if (isSomewhere()) return cursor_->leave();
    if (missing_ > 0) --missing_;
  }

  void enterDirectory(const std::string& name) {
    if (!isSomewhere()) {
      ++missing_;
      return;
    }
    const std::string path = cursor_->pathTo(name);
    if (!options_.dryRun && ::mkdirat(cursor_->descriptor().number(), name.c_str(), 0777) != 0 &&
        errno != EEXIST) {
      throw systemFailure(path, "create directory");
    }
    if (cursor_->enter(name)) return tidyUp();
    if (options_.dryRun && errno == ENOENT) {
      ++missing_;
      return;
    }
    if (errno != ENOTDIR && errno != ELOOP) throw systemFailure(path, "open directory");
    throw Failure(ExitCode::partial, path, "", "exists already and is no directory");
  }

  void unpackItem() {
    hxcrate::Reader reader = walk_.container().read(walk_.name());
    quota_.takeBytes(walk_.place(), reader.size());
    if (!isSomewhere()) return;
    const std::string& name = walk_.name();
    const std::string path = cursor_->pathTo(name);
    const auto existing = inspect(cursor_->descriptor(), name);
    if (existing) requireReplaceable(*existing, path);
    if (options_.dryRun) return;
    NewFile file(cursor_->descriptor(), name, path, {existing});
    pump_.move(BytePump::kEverything, takeFrom(reader), giveTo(file.descriptor(), path));
    if (existing ? file.deliver() : file.deliverUnsynced()) return;
    throw Failure(ExitCode::partial, path, "", "exists already");
  }

  void tidyUp() const {
    if (!options_.dryRun) removeLeftovers(cursor_->descriptor());
  }

  void requireReplaceable(const struct stat& existing, const std::string& path) const {
    if (options_.overwrite && S_ISREG(existing.st_mode)) return;
    const char* reason =
        options_.overwrite ? "exists already and is no regular file" : "exists already";
    throw Failure(ExitCode::partial, path, "", reason);
  }

  // At once for all that was made.
  void syncAll() const {
    if (::syncfs(cursor_->descriptor().number()) != 0) {
      throw systemFailure(options_.directory, "sync");
    }
  }

  void announce() const {
    complain(options_.directory, "",
             "would get " + std::to_string(quota_.entries()) + " entries, " +
                 std::to_string(quota_.bytes()) + " bytes");
  }

  const UnpackOptions& options_;
  const MemberSelection selection_;
  std::optional<DirectoryCursor> cursor_;
  StoreWalk walk_;
  Quota quota_;
  BytePump pump_;
  std::size_t missing_ = 0;
  ExitCode outcome_ = ExitCode::fine;
};

// What can't be read is told of when its turn comes.
std::int64_t measure(const MemberSelection& selection, hxcrate::Store start) {
  std::int64_t total = 0;
  StoreWalk walk(std::move(start));
  for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
    const bool isStore = event == StoreWalk::Event::store;
    if (event == StoreWalk::Event::leave || !selection.wants(walk.place(), isStore)) continue;
    try {
      isStore ? walk.enter() : void(total += walk.itemSize());
    } catch (const hxcrate::Error&) {  // NOLINT(bugprone-empty-catch)
    }
  }
  return total;
}

// What can't be opened is there for sure, and told of when its turn comes.
bool isThere(const hxcrate::Store& store, const std::string& path) {
  try {
    return kindOf(store, path).has_value();
  } catch (const hxcrate::Error&) {
    return true;
  }
}

ExitCode unpack(const UnpackOptions& options) {
  ExitCode outcome = ExitCode::fine;
  hxcrate::Session session;
  hxcrate::Store store = openWhatThereIs(session, options.store, outcome);
  for (const std::string& path : options.paths)
    if (!isThere(store, path)) throw hxcrate::Error(hxcrate::Errc::notFound, options.store, path);
  Progress progress("unpacking");
  if (progress.isShown() && !options.dryRun) {
    progress.expect(measure(MemberSelection(options.paths), session.open(options.store)));
  }
  if (!options.dryRun && ::mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(options.directory, "create directory");
  }
  return worse(outcome, Unpacker(options, std::move(store), progress).unpack());
}

}  // namespace

void addUnpack(CommandLine& line) {
  const auto options = std::make_shared<UnpackOptions>();
  CLI::App& words =
      line.add("unpack", "Unpack STORE, or PATHs of it, into the directory DIR, made if missing",
               "  hxcrate unpack docs.st copy\n"
               "  hxcrate unpack --overwrite docs.st copy guide/intro.txt images",
               [options] { return unpack(*options); });
  addStore(words, options->store);
  words.add_option("DIR", options->directory, "the directory")->required();
  addMemberPaths(words, options->paths, "items, and stores with all they hold; all unless given");
  words.add_flag("--overwrite", options->overwrite, "replace existing files");
  addCount(words, "--max-entries", options->maxEntries, "stop before more files and directories");
  addCount(words, "--max-bytes", options->maxBytes, "stop before more bytes in files");
  addDryRun(words, options->dryRun);
}

}  // namespace tool
