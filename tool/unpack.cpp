// hxcrate unpack: a store file becomes a tree of directories.

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "byte_pump.h"
#include "command_line.h"
#include "directory.h"
#include "inspected_store.h"
#include "new_file.h"
#include "planted_journal.h"
#include "selection.h"
#include "store_walk.h"
#include "write_limits.h"

namespace tool {

namespace {

struct UnpackOptions {
  std::string store;
  std::string directory;
  std::vector<std::string> paths;
  SelectionOptions selected;
  std::int64_t maxEntries = kUnlimited;
  std::int64_t maxBytes = kUnlimited;
  bool overwrite = false;
  bool withJournals = false;
  std::int64_t wait = 0;  // seconds
  bool dryRun = false;
};

// Ends the command, unlike what befalls one entry.
class QuotaFailure : public Failure {
 public:
  using Failure::Failure;
};
class TargetFailure : public Failure {
 public:
  explicit TargetFailure(const Failure& failure) : Failure(failure) {}
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
      fail(place, fmt::format("is beyond the {} entries allowed", options_.maxEntries));
    }
    ++entries_;
  }
  void takeBytes(const std::string& place, std::int64_t bytes) {
    if (bytes > options_.maxBytes - bytes_) {
      fail(place, fmt::format("its {} bytes go beyond the {} allowed", bytes, options_.maxBytes));
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
  enum class Purpose {
    make,
    announce,  // say what would be made
    measure    // in silence
  };

  Unpacker(Purpose purpose, const UnpackOptions& options, const Selection& selection,
           hxcrate::Store store, Progress& progress)
      : purpose_(purpose),
        options_(options),
        walk_(std::move(store), &selection),
        quota_(options),
        ownBytes_(options.store, options.maxBytes),
        pump_(&progress) {}

  ExitCode unpack() {
    if (isMaking() || ::access(options_.directory.c_str(), F_OK) == 0) {
      cursor_.emplace(options_.directory);
      top_ = cursor_->path();
      tidyUp();
    }
    try {
      takeAll();
    } catch (const QuotaFailure&) {
      if (purpose_ != Purpose::measure) throw;
    }
    if (purpose_ == Purpose::make) syncAll();
    if (purpose_ == Purpose::announce) announce();
    return outcome_;
  }

  std::int64_t bytes() const { return quota_.bytes(); }
  std::int64_t items() const { return items_; }
  std::int64_t growth() const { return growth_; }  // less what is replaced

 private:
  bool isMaking() const { return purpose_ == Purpose::make; }

  void takeAll() {
    for (auto event = walk_.next(); event != StoreWalk::Event::end; event = walk_.next()) {
      throwIfInterrupted();
      if (event == StoreWalk::Event::leave) {
        leaveStore();
      } else {
        take(event);
        if (purpose_ == Purpose::measure) ownBytes_.require(quota_.bytes());
      }
    }
  }

  void take(StoreWalk::Event event) {
    try {
      if (!isFileName(walk_.name())) throw refusal("no file can have this name");
      quota_.takeEntry(walk_.place());
      event == StoreWalk::Event::item ? unpackItem() : enterStore();
    } catch (const QuotaFailure&) {
      throw;
    } catch (const TargetFailure&) {
      throw;
    } catch (const hxcrate::Error& error) {
      leaveOut(Failure(ExitCode::partial, error.store(), error.member(), error.reason()));
      ownBytes_.requireRead(walk_.container().bytesRead());
    } catch (const Failure& failure) {
      if (failure.isOfWholeDisk()) throw;
      leaveOut(failure);
    }
  }

  void leaveOut(const Failure& failure) {
    if (purpose_ != Purpose::measure) failure.print();
    outcome_ = ExitCode::partial;
  }

  Failure refusal(const char* reason) const {
    return {ExitCode::partial, options_.store, walk_.place(), reason};
  }

  // Where nothing is made the directories that do not exist are gone through by their number.
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
    if (isMaking() && ::mkdirat(cursor_->descriptor().number(), name.c_str(), 0777) != 0 &&
        errno != EEXIST) {
      throw systemFailure(path, "create directory");
    }
    if (cursor_->enter(name)) return tidyUp();
    if (!isMaking() && errno == ENOENT) {
      requireWritableHere(path);
      ++missing_;
      return;
    }
    if (errno != ENOTDIR && errno != ELOOP) throw systemFailure(path, "open directory");
    throw Failure(ExitCode::partial, path, "", "exists already and is no directory");
  }

  void unpackItem() {
    hxcrate::Reader reader = walk_.container().read(walk_.name());
    quota_.takeBytes(walk_.place(), reader.size());
    growth_ += reader.size();
    ++items_;
    isSomewhere() ? unpackInto(*cursor_, reader) : requireNoJournal(Descriptor());
  }

  void unpackInto(const DirectoryCursor& place, hxcrate::Reader& reader) {
    const std::string& name = walk_.name();
    const std::string path = place.pathTo(name);
    requireNoJournal(place.descriptor());
    const auto existing = inspect(place.descriptor(), name);
    if (existing) requireReplaceable(*existing, path);
    if (existing) growth_ -= existing->st_size;
    if (!isMaking()) return requireWritableHere(path);
    NewFile file(place.descriptor(), name, path, {existing});
    pump_.move(BytePump::kEverything, takeFrom(reader), giveTo(file.descriptor(), path));
    if (existing ? file.deliver() : file.deliverUnsynced()) return;
    throw Failure(ExitCode::partial, path, "", "exists already");
  }

  void requireNoJournal(const Descriptor& directory) const {
    if (options_.withJournals) return;
    if (!isPlantedJournal(walk_.container(), walk_.name(), directory)) return;
    throw refusal("would be taken for the journal of the store beside it; --journals unpacks it");
  }

  // As what is made would show. Where nothing can be made in the directory that was asked for, that
  // is the failure of the whole.
  void requireWritableHere(const std::string& path) const {
    try {
      requireWritable(cursor_->descriptor(), path);
    } catch (const Failure& failure) {
      if (cursor_->path() == top_) throw TargetFailure(failure);
      throw;
    }
  }

  void tidyUp() const {
    if (isMaking()) removeLeftovers(cursor_->descriptor());
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
             fmt::format("would get {} entries, {} bytes", quota_.entries(), quota_.bytes()));
  }

  const Purpose purpose_;
  const UnpackOptions& options_;
  std::optional<DirectoryCursor> cursor_;
  std::string top_;  // where that began
  StoreWalk walk_;
  Quota quota_;
  const OwnBytes ownBytes_;
  BytePump pump_;
  std::size_t missing_ = 0;
  std::int64_t growth_ = 0;
  std::int64_t items_ = 0;
  ExitCode outcome_ = ExitCode::fine;
};

// What can't be opened is there for sure, and told of when its turn comes.
bool isThere(const hxcrate::Store& store, const std::string& path) {
  try {
    return kindOf(store, path).has_value();
  } catch (const hxcrate::Error& error) {
    if (error.errc() == hxcrate::Errc::badName) throw;
    return true;
  }
}

// The directory, or the one that it can be made in.
Descriptor openTarget(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  if (::access(path.c_str(), F_OK) == 0) return openDirectory(path);
  Descriptor parent = locateFile(path).directory;
  requireWritable(parent, path);
  return parent;
}

// Throws what keeps the whole from being made.
void measure(const UnpackOptions& options, const Selection& selection, hxcrate::Store store,
             Progress& progress) {
  const Descriptor target = openTarget(options.directory);
  Unpacker unpacker(Unpacker::Purpose::measure, options, selection, std::move(store), progress);
  unpacker.unpack();
  requireRoom(target, unpacker.growth(), options.directory);
  progress.expect(unpacker.bytes(), unpacker.items());
}

ExitCode unpack(UnpackOptions& options) {
  ExitCode outcome = ExitCode::fine;
  hxcrate::Session session(waitingFor(options.wait));
  hxcrate::Store store = openWhatThereIs(session, options.store, outcome);
  // "/" is the store as a whole.
  if (std::count(options.paths.begin(), options.paths.end(), "") > 0) options.paths.clear();
  for (const std::string& path : options.paths)
    if (!isThere(store, path)) throw hxcrate::Error(hxcrate::Errc::notFound, options.store, path);
  const Selection selection(options.selected, options.paths);
  Progress progress("unpacking");
  hxcrate::Store again = session.open(options.store, hxcrate::Mode::read, {.acceptDamaged = true});
  measure(options, selection, std::move(again), progress);
  if (!options.dryRun && ::mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(options.directory, "create directory");
  }
  const auto purpose = options.dryRun ? Unpacker::Purpose::announce : Unpacker::Purpose::make;
  return worse(outcome, Unpacker(purpose, options, selection, std::move(store), progress).unpack());
}

}  // namespace

void addUnpack(CommandLine& line) {
  const auto options = std::make_shared<UnpackOptions>();
  CLI::App& words =
      line.add("unpack", "Unpack STORE, or PATHs of it, into the directory DIR, made if missing",
               "  hxcrate unpack docs.st copy\n"
               "  hxcrate unpack --overwrite docs.st copy guide/intro.txt images",
               [options] { return seeLostMembers(options->store, unpack(*options)); });
  addStore(words, options->store);
  addFile(words, "DIR", options->directory, "the directory");
  addMemberPaths(words, options->paths, "items, and stores with all they hold; all unless given");
  words.add_flag("--overwrite", options->overwrite, "replace existing files");
  words.add_flag("--journals", options->withJournals, "also what passes for a store's journal");
  addCount(words, "--max-entries", options->maxEntries, "stop before more files and directories");
  addCount(words, "--max-bytes", options->maxBytes, "stop before more bytes in files");
  addSelection(words, options->selected);
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
