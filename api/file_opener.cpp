#include "file_opener.h"

#include <cerrno>
#include <mutex>
#include <utility>

#include "host/linux/locked_files.h"
#include "records/status.h"

namespace hxcrate {

namespace {

// Whoever replaces files faster than this is not waited for.
constexpr int kMostAttempts = 100;

hxhost::Purpose purposeOf(Mode mode) {
  if (mode == Mode::read) return hxhost::Purpose::kRead;
  return mode == Mode::replace ? hxhost::Purpose::kReplace : hxhost::Purpose::kUpdate;
}

// A file of any kind is an obstacle, also a link that leads nowhere.
void requireNothing(hxhost::FileOps& files, const std::string& path) {
  hxhost::FileInfo info{};
  if (files.inspectPath(path, info) == 0) throw Error(Errc::exists, path, "");
}

}  // namespace

FileOpener::FileOpener(std::shared_ptr<Engine> engine, const std::string& path, Mode mode,
                       const OpenOptions& options)
    : engine_(std::move(engine)),
      path_(path),
      mode_(mode),
      options_(options),
      name_(decodeFilePath(path)) {}

std::shared_ptr<Opening> FileOpener::open() {
  if (mode_ == Mode::create) requireNothing(*engine_->fileOps(), path_);
  auto opening = std::make_shared<Opening>(engine_, path_, mode_ != Mode::read);
  for (int left = kMostAttempts; left > 0; --left) {
    if (attempt(*opening)) return opening;
  }
  throw Error(Errc::storeInUse, path_, "", "others replace it all the time");
}

std::shared_ptr<Opening> FileOpener::openEmpty() {
  auto opening = std::make_shared<Opening>(engine_, path_, true);
  const hxhost::OpenRequest request({});
  OpenedRoot root = enterModule(hx::kUpdate | hx::kCreate);
  if (root == nullptr) failOpening(path_, refusalOf(request), static_cast<Errc>(status_), true);
  opening->take(std::move(root));
  return opening;
}

// False when somebody else came in between.
bool FileOpener::attempt(Opening& opening) {
  const hxhost::OpenRequest request(
      {.onlyNew = mode_ == Mode::create,
       .onlyExisting = !mayCreate(),
       .lockWait = options_.lockWait.value_or(engine_->options().lockWait)});
  if (!hxhost::LinuxHost::reserve(engine_->module()->fileExtension, name_, purposeOf(mode_))) {
    failOpening(path_, refusalOf(request), Errc::fileNotOpen, mayCreate());
  }
  const hxhost::FileInfo file = request.reservation()->file().info;
  const std::lock_guard guard(engine_->openingMutex());
  SessionFiles& files = engine_->files();
  if (files.isTaken(name_, file)) {
    name_.insert(0, U"/.");  // another name of the same file
    return false;
  }
  files.check(name_, file);
  OpenedRoot root = enterModule(flagsFor(file.size));
  const OpenRefusal refusal = refusalOf(request);
  if (root == nullptr && isOvertaken(refusal)) return false;
  if (root == nullptr) failOpening(path_, refusal, explain(refusal), mayCreate());
  files.enter(name_, hxhost::LinuxHost::outcomeOf(hx::fileOf(root.get()))->opened());
  opening.take(std::move(root), name_);
  return true;
}

// A file too short for a store may be anybody's: only an empty one is taken over.
std::uint32_t FileOpener::flagsFor(std::int64_t length) const {
  switch (mode_) {
    case Mode::read:
      return hx::kRead;
    case Mode::update:
      return hx::kUpdate;
    case Mode::openOrCreate:
      return length == 0 ? hx::kUpdate | hx::kCreate : std::uint32_t{hx::kUpdate};
    case Mode::create:
    case Mode::replace:
      break;
  }
  return hx::kUpdate | hx::kCreate | hx::kReplace;
}

// Null with the status in status_. Nobody else can have opened anything in a new store yet; one
// that exists keeps its page size.
OpenedRoot FileOpener::enterModule(std::uint32_t flags) {
  hx::ExtensionInstance* module = engine_->module();
  OpenedRoot root(module->openStore(module, nullptr, name_.data(),
                                    static_cast<std::int32_t>(name_.size()), flags, &status_));
  const bool isNew = root != nullptr && (flags & hx::kCreate) != 0;
  if (isNew && options_.pageSize != 0) root->setPageSize(root.get(), options_.pageSize);
  return root;
}

// What can be read in part is a store, also where it can't be updated.
Errc FileOpener::explain(const OpenRefusal& refusal) {
  const auto code = static_cast<Errc>(status_);
  if (code != Errc::damaged || refusal.failure) return code;
  return enterModule(hx::kRead) != nullptr ? Errc::damaged : Errc::notAStore;
}

// Between a removal and the making of the new file its name is anybody's.
bool FileOpener::isOvertaken(const OpenRefusal& refusal) const {
  if (mode_ != Mode::replace || static_cast<Errc>(status_) != Errc::fileNotOpen) return false;
  return !refusal.failure || refusal.failure->error == EBUSY;
}

}  // namespace hxcrate
