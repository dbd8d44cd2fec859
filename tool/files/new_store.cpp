#include "new_store.h"

#include <fmt/format.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <hxcrate/leftovers.hpp>
#include <span>
#include <system_error>

#include "interruption.h"
#include "object_target.h"
#include "tool/trees/planted_journal.h"
#include "write_limits.h"

namespace tool {

namespace {

std::int32_t pageSizeOf(const SizeForecast& forecast, const NewStore::Options& options) {
  return options.pageSize != 0 ? options.pageSize : forecast.bestPageSize(options.inMemory);
}

// A new file as the store that it holds.
class WrittenBytes : public hxcrate::ByteSource {
 public:
  explicit WrittenBytes(const NewFile& file) : file_(file) {
    struct stat status {};
    if (::fstat(file.descriptor().number(), &status) != 0) {
      throw systemFailure(file.path(), "inspect");
    }
    length_ = status.st_size;
  }

  std::int64_t length() const override { return length_; }
  std::size_t read(std::int64_t offset, std::span<std::byte> to) const override {
    throwIfInterrupted();
    return readAt(file_.descriptor(), offset, to);
  }
  const std::string& name() const override { return file_.path(); }

 private:
  const NewFile& file_;
  std::int64_t length_;
};

bool isWrittenTwice(const NewStore::Options& options) {
  return !options.use.empty() || !options.encoding.empty();
}

void rewrite(const NewFile& from, const NewStore::Options& options, const NewFile& to) {
  const auto put = [&](std::int64_t offset, std::span<const std::byte> bytes) {
    if (!writeAt(to.descriptor(), offset, bytes)) throw systemFailure(to.path(), "write");
  };
  const auto give = options.use.empty() ? hxcrate::transcode : hxcrate::arrangeForReading;
  give(WrittenBytes(from), options.encoding, put);
}

// A failure would be told to have left the store as it was, but there is none yet.
Failure failureOf(const hxcrate::Error& error, const std::string& path) {
  std::string reason = error.reason();
  if (const hxcrate::FileFailure* failure = error.fileFailure()) {
    hxcrate::FileFailure plain = *failure;
    plain.rolledBack = false;
    reason = hxcrate::Error(error.errc(), path, error.member(), plain).reason();
  }
  return {exitCodeOf(error), path, error.member(), reason};
}

}  // namespace

NewStore::NewStore(const std::string& path, bool replace, std::int64_t wait)
    : shown_(path),
      place_(hxcrate::isUrl(path) ? locateAside(path) : locateFile(path)),
      replaces_(replace) {
  if (hxcrate::isUrl(path)) {
    requireSendable(path, replace);
    return;
  }
  const auto status = inspect(place_.directory, place_.name);
  if (!status && errno != ENOENT) throw systemFailure(path, "inspect");
  if (status && !replace) refuse("exists already");
  status ? locateExisting(wait) : refuseStrayJournal();
  refuseJournalName(place_.directory, place_.name, path);
  requireWritable(place_.directory, path);
}

// Beside the new file it would pass for that one's, and keep it from being opened.
void NewStore::refuseStrayJournal() const {
  const std::string journal = place_.name + "-journal";
  if (!inspect(place_.directory, journal)) return;
  refuse("the file " + journal + " would belong to it; it has to go first");
}

void NewStore::locateExisting(std::int64_t wait) {
  std::error_code dangling;
  const std::string target = std::filesystem::canonical(shown_, dangling);
  if (dangling) refuse("only a regular file is replaced");
  place_ = locateFile(target);
  existing_ = inspect(place_.directory, place_.name);
  if (!existing_ || !S_ISREG(existing_->st_mode)) refuse("only a regular file is replaced");
  try {
    lock_ = std::make_unique<hxcrate::InspectedFile>(target, std::chrono::seconds(wait));
  } catch (const hxcrate::Error& error) {
    if (error.errc() != hxcrate::Errc::notFound) refuse(error.reason());
    existing_.reset();  // what was undone was its making
    return refuseStrayJournal();
  }
  if (!lock_->caveat().empty()) refuse(lock_->caveat());
  if (existing_->st_size == 0) refuseStrayJournal();
}

void NewStore::refuse(const std::string& reason) const {
  throw Failure(ExitCode::notOpenable, shown_, "", reason);
}

void NewStore::make(const SizeForecast& forecast, const Options& options, const Fill& fill) const {
  const std::int32_t pageSize = pageSizeOf(forecast, options);
  requireRoomFor(forecast.fileSize(pageSize, options.inMemory), options);
  hxcrate::removeLeftovers(place_.directory.number());
  // A journal that was the replaced file's must not come back beside the new one.
  if (existing_ && !sync(place_.directory)) throw systemFailure(shown_, "sync its folder");
  const NewFile::Options made{existing_, options.copyOf};
  NewFile file(place_.directory, place_.name, shown_, made);
  fillFile(file, pageSize, options, fill);
  if (!isWrittenTwice(options)) return deliver(file);
  NewFile rewritten(place_.directory, place_.name, shown_, made);
  rewrite(file, options, rewritten);
  deliver(rewritten);
}

// Delivering waits for the disk, nothing before.
void NewStore::fillFile(const NewFile& file, std::int32_t pageSize, const Options& options,
                        const Fill& fill) const {
  hxcrate::Session session({.durability = hxcrate::Durability::none});
  const std::string path = file.descriptor().asPath() + "/" + place_.name;  // nobody else's
  try {
    hxcrate::Store store = options.inMemory ? session.createInMemory(path, pageSize)
                                            : session.createIn(file.descriptor().number(), path,
                                                               {.pageSize = pageSize});
    fill(store);
    if (!options.inMemory) return store.close();
    const hxcrate::Blob blob = store.makeBlob();
    if (!writeAll(file.descriptor(), blob.bytes())) throw systemFailure(shown_, "write");
  } catch (const hxcrate::Error& error) {
    if (error.store() != path) throw;
    throw failureOf(error, shown_);
  }
}

void NewStore::deliver(NewFile& file) const {
  if (hxcrate::isUrl(shown_)) return sendFile(file, shown_, replaces_);
  if (!file.deliver()) refuse("exists already");
}

// Then it is there twice for a while.
void NewStore::requireRoomFor(std::int64_t bytes, const Options& options) const {
  requireRoom(place_.directory, isWrittenTwice(options) ? 2 * bytes : bytes, shown_);
}

void NewStore::announce(const SizeForecast& forecast, const Options& options) const {
  const std::int32_t pageSize = pageSizeOf(forecast, options);
  const std::int64_t size = forecast.fileSize(pageSize, options.inMemory);
  requireRoomFor(size, options);
  complain(shown_, "",
           fmt::format("would hold {} in {}, {}; a file of {} bytes, with pages of {}",
                       countThings(forecast.items(), "item"),
                       countThings(forecast.stores() + 1, "store"),
                       countThings(forecast.bytes(), "byte"), size, pageSize));
}

}  // namespace tool
