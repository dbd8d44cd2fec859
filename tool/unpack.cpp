#include "unpack.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <span>
#include <vector>

#include "directory.h"
#include "store_walk.h"

namespace tool {

namespace {

constexpr std::size_t kTransferSize = 256 * 1024;

bool isFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

// A new file under a passing name, which goes with this object unless it got its own.
class NewFile {
 public:
  explicit NewFile(const Descriptor& directory) : directory_(directory) {
    for (int i = 0; !file_.isOpen() && (i == 0 || errno == EEXIST); ++i) {
      name_ = ".hxcrate-" + std::to_string(::getpid()) + "-" + std::to_string(i);
      file_ = Descriptor(::openat(directory_.number(), name_.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    }
    isThere_ = file_.isOpen();
  }
  ~NewFile() {
    if (isThere_) ::unlinkat(directory_.number(), name_.c_str(), 0);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  bool isOpen() const { return file_.isOpen(); }
  bool write(std::span<const std::byte> bytes) { return writeAll(file_, bytes); }
  bool deliver(const std::string& name, bool replace) {
    if (!file_.close() || !moveFile(directory_, name_, directory_, name, replace)) return false;
    isThere_ = false;
    return true;
  }

 private:
  const Descriptor& directory_;
  std::string name_;
  Descriptor file_;
  bool isThere_ = false;
};

class Unpacker {
 public:
  Unpacker(const UnpackOptions& options, hxcrate::Store store)
      : options_(options),
        cursor_(options.directory),
        walk_(std::move(store)),
        buffer_(kTransferSize) {}

  ExitCode unpack() {
    while (true) {
      switch (walk_.next()) {
        case StoreWalk::Event::item:
          attempt([this] { unpackItem(); });
          break;
        case StoreWalk::Event::store:
          attempt([this] { enterStore(); });
          break;
        case StoreWalk::Event::leave:
          cursor_.leave();
          break;
        case StoreWalk::Event::end:
          return outcome_;
      }
    }
  }

 private:
  // One entry that fails is named, and the others go on.
  template <typename Step>
  void attempt(Step step) {
    try {
      if (isFileName(walk_.name())) {
        step();
      } else {
        complain(options_.store, place(), "no file can have this name");
        outcome_ = ExitCode::partial;
      }
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = ExitCode::partial;
    } catch (const Failure& failure) {
      failure.print();
      outcome_ = ExitCode::partial;
    }
  }

  std::string place() const {
    const std::string& outer = walk_.container().place();
    return outer.empty() ? walk_.name() : outer + "/" + walk_.name();
  }

  [[noreturn]] void refuse(std::string_view reason) const {
    throw Failure(ExitCode::partial, cursor_.pathTo(walk_.name()), "", std::string(reason));
  }

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

  void enterDirectory(const std::string& name) {
    const std::string path = cursor_.pathTo(name);
    const bool isMade = ::mkdirat(cursor_.descriptor().number(), name.c_str(), 0777) == 0;
    if (!isMade && errno != EEXIST) throw systemFailure(path, "create directory");
    if (cursor_.enter(name)) return;
    if (errno != ENOTDIR && errno != ELOOP) throw systemFailure(path, "open directory");
    throw Failure(ExitCode::partial, path, "", "exists already and is no directory");
  }

  void unpackItem() {
    const std::string& name = walk_.name();
    hxcrate::Reader reader = walk_.container().read(name);
    if (const auto existing = inspect(cursor_.descriptor(), name)) {
      if (!options_.overwrite) refuse("exists already");
      if (!S_ISREG(existing->st_mode)) refuse("exists already and is no regular file");
    }
    NewFile file(cursor_.descriptor());
    if (!file.isOpen()) throw systemFailure(cursor_.pathTo(name), "create");
    while (const std::size_t count = reader.read(buffer_)) {
      if (!file.write(std::span(buffer_).first(count))) {
        throw systemFailure(cursor_.pathTo(name), "write");
      }
    }
    if (!file.deliver(name, options_.overwrite)) {
      throw systemFailure(cursor_.pathTo(name), "give the file its name");
    }
  }

  const UnpackOptions& options_;
  DirectoryCursor cursor_;
  StoreWalk walk_;
  std::vector<std::byte> buffer_;
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

ExitCode unpack(const UnpackOptions& options) {
  ExitCode outcome = ExitCode::fine;
  hxcrate::Session session;
  hxcrate::Store store = openWhatThereIs(session, options.store, outcome);
  if (::mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(options.directory, "create directory");
  }
  return worse(outcome, Unpacker(options, std::move(store)).unpack());
}

}  // namespace tool
