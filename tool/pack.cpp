#include "pack.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "directory.h"
#include "report.h"
#include "source_tree.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kTransferSize = 256 * 1024;

bool isUnchanged(const struct stat& before, const struct stat& now) {
  return isSameFile(before, now) && before.st_size == now.st_size &&
         before.st_mtim.tv_sec == now.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == now.st_mtim.tv_nsec &&
         before.st_ctim.tv_sec == now.st_ctim.tv_sec &&
         before.st_ctim.tv_nsec == now.st_ctim.tv_nsec;
}

// Where the store grows until it is complete: under its own name, which the file holds, in a
// directory of its own beside its place. Whatever is left of it goes with this object.
class Workshop {
 public:
  // `shown` is what the target is called in messages.
  Workshop(const fs::path& target, const std::string& shown)
      : target_(target), shown_(shown), directory_(target.parent_path() / ".hxcrate-XXXXXX") {
    if (::mkdtemp(directory_.data()) == nullptr) {
      throw systemFailure(target_.parent_path(), "create a directory");
    }
  }
  ~Workshop() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  Workshop(const Workshop&) = delete;
  Workshop& operator=(const Workshop&) = delete;

  std::string storePath() const { return fs::path(directory_) / target_.filename(); }

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

// Replays a scan, directory by directory, into a store.
class Packer {
 public:
  Packer(const std::string& directory, hxcrate::Store& store)
      : cursor_(directory), store_(store), buffer_(kTransferSize) {}

  void pack(const std::vector<SourceStep>& steps) {
    for (const SourceStep& step : steps) {
      switch (step.kind) {
        case SourceStep::Kind::enterDirectory:
          if (!cursor_.enter(step.name)) throw systemFailure(cursor_.pathTo(step.name), "open");
          nested_.push_back(current().createStore(step.name));
          break;
        case SourceStep::Kind::leaveDirectory:
          cursor_.leave();
          nested_.pop_back();
          break;
        case SourceStep::Kind::file:
          packFile(step);
          break;
      }
    }
  }

 private:
  hxcrate::Store& current() { return nested_.empty() ? store_ : nested_.back(); }

  void packFile(const SourceStep& step) {
    const std::string path = cursor_.pathTo(step.name);
    // Not to wait, should it be a FIFO by now.
    const Descriptor file(::openat(cursor_.descriptor().number(), step.name.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) throw systemFailure(path, "open");
    checkUnchanged(file, step.status, path);
    hxcrate::Writer writer = current().create(step.name);
    if (copy(file, writer, path) != step.status.st_size) failChanged(path);
    writer.close();
    checkUnchanged(file, step.status, path);
  }

  static void checkUnchanged(const Descriptor& file, const struct stat& before,
                             const std::string& path) {
    struct stat now {};
    if (::fstat(file.number(), &now) != 0) throw systemFailure(path, "inspect");
    if (!isUnchanged(before, now)) failChanged(path);
  }

  [[noreturn]] static void failChanged(const std::string& path) {
    throw Failure(ExitCode::inputOutput, path, "", "it changed while it was packed");
  }

  std::int64_t copy(const Descriptor& file, hxcrate::Writer& writer, const std::string& path) {
    std::int64_t total = 0;
    while (true) {
      const ssize_t count = readSome(file, buffer_);
      if (count < 0) throw systemFailure(path, "read");
      if (count == 0) return total;
      writer.write(std::span(buffer_).first(static_cast<std::size_t>(count)));
      total += count;
    }
  }

  DirectoryCursor cursor_;
  hxcrate::Store& store_;
  std::vector<hxcrate::Store> nested_;
  std::vector<std::byte> buffer_;
};

struct Target {
  fs::path path;
  std::optional<struct stat> existing;  // what is replaced
};

[[noreturn]] void refuseTarget(const PackOptions& options, const std::string& reason) {
  throw Failure(ExitCode::notOpenable, options.store, "", reason);
}

// Where the store is to lie; for an existing one that is its own place rather than a link to it.
Target locateTarget(const PackOptions& options) {
  struct stat status {};
  if (::lstat(options.store.c_str(), &status) != 0) {
    if (errno != ENOENT) throw systemFailure(options.store, "inspect");
    fs::path path = fs::absolute(options.store);
    if (!path.has_filename()) refuseTarget(options, "not the name of a file");
    return {std::move(path), std::nullopt};
  }
  if (!options.replace) refuseTarget(options, "exists already");
  std::error_code dangling;
  fs::path path = fs::canonical(options.store, dangling);
  if (dangling || ::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    refuseTarget(options, "only a regular file is replaced");
  }
  return {std::move(path), status};
}

void packIntoFile(const PackOptions& options, const std::string& path,
                  const std::vector<SourceStep>& steps) {
  hxcrate::Session session({.durability = hxcrate::Durability::none});  // delivering waits for it
  hxcrate::Store store = session.open(path, hxcrate::Mode::create, {.pageSize = options.pageSize});
  Packer(options.directory, store).pack(steps);
  store.close();
}

hxcrate::Blob packIntoBlob(const PackOptions& options, const std::string& name,
                           const std::vector<SourceStep>& steps) {
  hxcrate::Session session;
  hxcrate::Store store = session.createInMemory(name, options.pageSize);
  Packer(options.directory, store).pack(steps);
  return store.makeBlob();
}

}  // namespace

void pack(const PackOptions& options) try {
  const Target target = locateTarget(options);
  const std::vector<SourceStep> steps = scanTree(options.directory, target.existing);
  const Workshop workshop(target.path, options.store);
  if (options.inMemory) {
    const hxcrate::Blob blob = packIntoBlob(options, target.path.filename(), steps);
    workshop.write(blob.bytes());
  } else {
    packIntoFile(options, workshop.storePath(), steps);
  }
  if (!workshop.deliver(target.existing)) refuseTarget(options, "exists already");
} catch (const hxcrate::Error& error) {
  // It names the store where it was made.
  throw Failure(exitCodeOf(error), options.store, error.member(), error.reason());
}

}  // namespace tool
