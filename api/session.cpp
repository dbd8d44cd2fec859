#include "hxcrate/session.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "engine.h"
#include "host/linux/nameless_file.h"
#include "host/linux/open_request.h"
#include "mapped_file.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

namespace {

std::error_code lastSystemError() {
  return {errno, std::system_category()};
}

// One call of Session::open, with the engine's opening mutex held.
class FileOpener {
 public:
  FileOpener(Engine& engine, const std::string& path, Mode mode, const OpenOptions& options)
      : engine_(engine),
        path_(path),
        mode_(mode),
        wide_(decodeFilePath(path)),
        options_(options),
        request_({.onlyNew = mode == Mode::create, .lockWait = engine.options().lockWait}) {}

  hx::Store* open() {
    switch (mode_) {
      case Mode::read:
        return openExisting(hx::kRead);
      case Mode::update:
        return openExisting(hx::kUpdate);
      case Mode::openOrCreate:
        return openOrCreate();
      case Mode::create:
        return create();
      case Mode::replace:
        return require(hx::kUpdate | hx::kCreate | hx::kReplace);
    }
    throw Error(Errc::contradiction, path_, "");
  }

  // Where there is a file, and it is empty.
  hx::Store* openOrCreateEmpty() { return require(hx::kUpdate | hx::kCreate); }

 private:
  // Null with the status in status_.
  hx::Store* attempt(std::uint32_t flags) {
    hx::ExtensionInstance* module = engine_.module();
    return module->openStore(module, nullptr, wide_.data(), length(), flags, &status_);
  }

  hx::Store* require(std::uint32_t flags) {
    hx::Store* store = attempt(flags);
    mayCreate_ = (flags & hx::kCreate) != 0;
    if (store == nullptr) fail();
    if (!mayCreate_) return store;
    OpenedRoot opened(store);
    fixPageSize(store);
    return opened.release();
  }

  // An update open of an absent file would leave an empty one behind, so it is asked for first.
  hx::Store* openExisting(std::uint32_t flags) {
    if (!fileSize()) throw Error(Errc::notFound, path_, "");
    return require(flags);
  }

  // A file too short for a store may be anybody's: only an empty one is taken over.
  hx::Store* openOrCreate() {
    if (fileSize()) {
      if (hx::Store* store = attempt(hx::kUpdate)) return store;
      const std::optional<std::int64_t> size = fileSize();
      if (status_ != hx::kNotFound || size.value_or(0) != 0) fail();
    }
    return require(hx::kUpdate | hx::kCreate);
  }

  // A file of any kind is an obstacle, also one that somebody makes while this one is made. What
  // the module remembers of a file that was removed meanwhile is none, hence the replacing.
  hx::Store* create() {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) == 0) throw Error(Errc::exists, path_, "");
    return require(hx::kUpdate | hx::kCreate | hx::kReplace);
  }

  // Nobody else can have opened anything in the store yet. One that exists keeps its page size.
  void fixPageSize(hx::Store* store) const {
    if (options_.pageSize != 0) store->setPageSize(store, options_.pageSize);
  }

  std::optional<std::int64_t> fileSize() const {
    struct stat status;
    if (::stat(path_.c_str(), &status) == 0) return status.st_size;
    if (errno == ENOENT) return std::nullopt;
    throw Error(Errc::fileNotOpen, path_, "", FileFailure{"stat", path_, -1, lastSystemError()});
  }

  [[noreturn]] void fail() {
    Engine::failOpening(path_, request_.failure(), static_cast<Errc>(status_), mayCreate_);
  }

  std::int32_t length() const { return static_cast<std::int32_t>(wide_.size()); }

  Engine& engine_;
  const std::string& path_;
  const Mode mode_;
  std::u32string wide_;
  OpenOptions options_;
  hxhost::OpenRequest request_;
  std::int32_t status_ = 0;
  bool mayCreate_ = false;
};

constexpr std::size_t kShortestStore = 40;  // a header

// The store over `bytes`, which `owner` keeps where they are; null: the caller does.
std::shared_ptr<Opening> openBytes(std::shared_ptr<Engine> engine, std::span<const std::byte> bytes,
                                   const std::string& name, std::shared_ptr<const void> owner) {
  if (bytes.size() < kShortestStore) throw Error(Errc::notAStore, name, "");
  const std::u32string wide = widenName(name);
  std::int32_t status = hx::kOk;
  hx::ExtensionInstance* module = engine->module();
  OpenedRoot root(module->openStoreFromMemory(module, bytes.data(), bytes.size(), wide.data(),
                                              static_cast<std::int32_t>(wide.size()), hx::kRead,
                                              &status));
  if (root == nullptr) throw Error(static_cast<Errc>(status), name, "");
  return std::make_shared<Opening>(std::move(engine), std::move(root), name, false,
                                   std::move(owner));
}

}  // namespace

Session::Session(SessionOptions options) {
  if (options.pageSize < 0) throw Error(Errc::badPageSize, "", "");
  engine_ = std::make_shared<Engine>(std::move(options));
}

const std::shared_ptr<Engine>& Session::engine() const {
  if (engine_ == nullptr) throw Error(Errc::closed, "", "");
  return engine_;
}

// 0 for the module's own.
std::int32_t Session::choosePageSize(std::int32_t wanted, const std::string& store) const {
  if (wanted < 0) throw Error(Errc::badPageSize, store, "");
  return wanted != 0 ? wanted : engine()->options().pageSize;
}

Store Session::open(const std::string& path, Mode mode, OpenOptions options) {
  options.pageSize = choosePageSize(options.pageSize, path);
  std::shared_ptr<Opening> opening;
  {
    const std::lock_guard guard(engine()->openingMutex());
    OpenedRoot root(FileOpener(*engine(), path, mode, options).open());
    opening = std::make_shared<Opening>(engine(), std::move(root), path, mode != Mode::read);
  }
  Store store(opening, opening->root());
  const std::error_code damage = store.damage();
  if (damage && !options.acceptDamaged) opening->fail(damage.value(), "");
  return store;
}

// By an engine of its own, whose host has no other file.
Store Session::createIn(int file, const std::string& path, OpenOptions options) {
  options.pageSize = choosePageSize(options.pageSize, path);
  const auto own = std::make_shared<Engine>(engine()->options(), hxhost::makeNamelessFileOps(file));
  OpenedRoot root(FileOpener(*own, path, Mode::openOrCreate, options).openOrCreateEmpty());
  const auto opening = std::make_shared<Opening>(own, std::move(root), path, true);
  return {opening, opening->root()};
}

// The module keeps all of the name, blobs what follows its last separator. The number tells stores
// in memory apart, however they are called, and from files, whose paths begin with a separator.
Store Session::createInMemory(const std::string& name, std::int32_t pageSize) {
  pageSize = choosePageSize(pageSize, name);
  const std::u32string wide =
      widenName(std::to_string(engine()->numberStoreInMemory()) + "/" + name);
  std::int32_t status = hx::kOk;
  hx::ExtensionInstance* module = engine()->module();
  OpenedRoot root(
      module->openStore(module, nullptr, wide.data(), static_cast<std::int32_t>(wide.size()),
                        hx::kUpdate | hx::kCreate | hx::kExclusive | hx::kNoFile, &status));
  if (root == nullptr) throw Error(static_cast<Errc>(status), name, "");
  if (pageSize != 0) root->setPageSize(root.get(), pageSize);
  const auto opening = std::make_shared<Opening>(engine(), std::move(root), name, true);
  return {opening, opening->root()};
}

Store Session::openBlob(std::span<const std::byte> bytes, const std::string& name) {
  const std::shared_ptr<Opening> opening = openBytes(engine(), bytes, name, nullptr);
  return {opening, opening->root()};
}

Store Session::openBlob(const Blob& blob, const std::string& name) {
  const std::shared_ptr<Opening> opening = openBytes(engine(), blob.bytes(), name, blob.memory_);
  return {opening, opening->root()};
}

Store Session::openMapped(const std::string& path) {
  std::shared_ptr<const MappedFile> file;
  {
    const std::lock_guard guard(engine()->openingMutex());
    file = std::make_shared<const MappedFile>(engine(), path);
  }
  const std::shared_ptr<Opening> opening = openBytes(engine(), file->bytes(), path, file);
  return {opening, opening->root()};
}

MemoryUse Session::memoryUse() const {
  return engine()->memoryUse();
}

std::string_view version() noexcept {
  return HX_VERSION;
}

}  // namespace hxcrate
