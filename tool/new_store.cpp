#include "new_store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <span>
#include <system_error>

#include "directory.h"
#include "interruption.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

// Where the store grows until it is complete: under its own name, which the file holds, in a
// directory of its own beside its place. Whatever is left of it goes with this object.
class Workshop {
 public:
  // `shown` is what the target is called in messages.
  Workshop(const fs::path& target, const std::string& shown)
      : target_(target), shown_(shown), directory_(target.parent_path() / ".hxcrate-XXXXXX") {
    if (::mkdtemp(directory_.data()) == nullptr) {
      throw systemFailure(target_.parent_path(), "make a working directory in it");
    }
  }
  ~Workshop() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  Workshop(const Workshop&) = delete;
  Workshop& operator=(const Workshop&) = delete;

  std::string storePath() const { return fs::path(directory_) / target_.filename(); }

  // The finished store as another machine would have written it.
  void turn(const std::string& encoding) const {
    const fs::path turned = fs::path(directory_) / "turned" / target_.filename();
    fs::create_directory(turned.parent_path());
    hxcrate::transcode(hxcrate::InspectedFile(storePath()), encoding, turned);
    fs::rename(turned, storePath());
  }

  bool holds(const std::string& path) const { return path.starts_with(directory_ + "/"); }

  void write(std::span<const std::byte> store) const {
    const Descriptor file(
        ::open(storePath().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.isOpen() || !writeAll(file, store)) throw systemFailure(shown_, "write");
  }

  // The bytes first, then the name: a power cut finds the old file or the whole new one. What is
  // replaced passes its permissions on. False when something else has the name meanwhile.
  bool deliver(const std::optional<struct stat>& existing) const {
    const Descriptor file(::open(storePath().c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen() || ::fsync(file.number()) != 0) throw systemFailure(shown_, "sync");
    if (existing && ::fchmod(file.number(), existing->st_mode & 07777) != 0) {
      throw systemFailure(shown_, "set permissions");
    }
    throwIfInterrupted();
    const Descriptor here(AT_FDCWD);
    if (moveFile(here, storePath(), here, target_, existing.has_value())) return true;
    if (errno == EEXIST) return false;
    throw systemFailure(shown_, "rename");
  }

 private:
  fs::path target_;
  std::string shown_;
  std::string directory_;
};

std::int32_t pageSizeOf(const SizeForecast& forecast, const NewStore::Options& options) {
  return options.pageSize != 0 ? options.pageSize : forecast.bestPageSize(options.inMemory);
}

// Nobody knows of it yet: delivering waits for the disk.
void makeFile(const std::string& path, std::int32_t pageSize, const NewStore::Fill& fill) {
  hxcrate::Session session({.durability = hxcrate::Durability::none});
  hxcrate::Store store = session.open(path, hxcrate::Mode::create, {.pageSize = pageSize});
  fill(store);
  store.close();
}

hxcrate::Blob makeBlob(const std::string& name, std::int32_t pageSize, const NewStore::Fill& fill) {
  hxcrate::Session session;
  hxcrate::Store store = session.createInMemory(name, pageSize);
  fill(store);
  return store.makeBlob();
}

}  // namespace

NewStore::NewStore(const std::string& path, bool replace) : shown_(path) {
  if (path.empty()) refuse("not the name of a file");
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) throw systemFailure(path, "inspect");
    target_ = fs::absolute(path);
    if (!target_.has_filename()) refuse("not the name of a file");
    refuseStrayJournal();
    return;
  }
  if (!replace) refuse("exists already");
  locateExisting();
}

// Beside the new file it would pass for that one's, and keep it from being opened.
void NewStore::refuseStrayJournal() const {
  const std::string journal = target_.string() + "-journal";
  struct stat status {};
  if (::lstat(journal.c_str(), &status) != 0) return;
  refuse("the file " + journal + " would belong to it; it has to go first");
}

void NewStore::locateExisting() {
  struct stat status {};
  std::error_code dangling;
  target_ = fs::canonical(shown_, dangling);
  if (dangling || ::stat(target_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    refuse("only a regular file is replaced");
  }
  try {
    lock_ = std::make_unique<hxcrate::InspectedFile>(target_);
  } catch (const hxcrate::Error& error) {
    if (error.errc() == hxcrate::Errc::notFound) return refuseStrayJournal();
    refuse(error.reason());
  }
  if (!lock_->caveat().empty()) refuse(lock_->caveat());
  if (status.st_size == 0) refuseStrayJournal();
  existing_ = status;
}

void NewStore::refuse(const std::string& reason) const {
  throw Failure(ExitCode::notOpenable, shown_, "", reason);
}

void NewStore::make(const SizeForecast& forecast, const Options& options, const Fill& fill) const {
  const Workshop workshop(target_, shown_);
  const std::string madeAs = options.inMemory ? target_.filename().string() : workshop.storePath();
  const std::int32_t pageSize = pageSizeOf(forecast, options);
  try {
    if (options.inMemory) {
      const hxcrate::Blob blob = makeBlob(madeAs, pageSize, fill);
      workshop.write(blob.bytes());
    } else {
      makeFile(madeAs, pageSize, fill);
    }
    if (!options.encoding.empty()) workshop.turn(options.encoding);
  } catch (const hxcrate::Error& error) {
    if (error.store() != madeAs && !workshop.holds(error.store())) throw;
    throw Failure(exitCodeOf(error), shown_, error.member(), error.reason());
  }
  if (!workshop.deliver(existing_)) refuse("exists already");
}

void NewStore::announce(const SizeForecast& forecast, const Options& options) const {
  const std::int32_t pageSize = pageSizeOf(forecast, options);
  complain(shown_, "",
           "would hold " + countThings(forecast.items(), "item") + " in " +
               countThings(forecast.stores() + 1, "store") + ", " +
               countThings(forecast.bytes(), "byte") + "; a file of " +
               std::to_string(forecast.fileSize(pageSize, options.inMemory)) +
               " bytes, with pages of " + std::to_string(pageSize));
}

}  // namespace tool
