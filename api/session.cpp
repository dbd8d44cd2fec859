#include "hxcrate/session.hpp"

#include <utility>

#include "engine.h"
#include "file_opener.h"
#include "host/linux/nameless_file.h"
#include "mapped_file.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"
#include "remote_files.h"

namespace hxcrate {

namespace {

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
  auto opening = std::make_shared<Opening>(std::move(engine), name, false, std::move(owner));
  opening->take(std::move(root));
  return opening;
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

std::int32_t Session::choosePageSize(std::int32_t wanted, const std::string& store) const {
  if (wanted < 0) throw Error(Errc::badPageSize, store, "");
  if (wanted != 0) return wanted;
  const std::int32_t ofSession = engine()->options().pageSize;
  return ofSession != 0 ? ofSession : kNewPageSize;
}

Store Session::open(const FilePath& path, Mode mode, OpenOptions options) {
  options.pageSize = choosePageSize(options.pageSize, path.text());
  const auto opening = isUrl(path.text()) ? openRemote(engine(), path.text(), mode)
                                          : FileOpener(engine(), path.text(), mode, options).open();
  Store store(opening, opening->root());
  const std::error_code damage = store.damage();
  if (damage && !options.acceptDamaged) opening->fail(damage.value(), "");
  return store;
}

Store Session::createIn(int file, const FilePath& path, OpenOptions options) {
  return createIn(file, path, options, engine()->options().durability);
}

// By an engine of its own, whose host has no other file.
Store Session::createIn(int file, const FilePath& path, OpenOptions options,
                        Durability durability) const {
  options.pageSize = choosePageSize(options.pageSize, path.text());
  SessionOptions ownOptions = engine()->options();
  ownOptions.durability = durability;
  const auto own = std::make_shared<Engine>(std::move(ownOptions),
                                            hxhost::makeNamelessFileOps(engine()->fileOps(), file));
  const auto opening = FileOpener(own, path.text(), Mode::openOrCreate, options).openEmpty();
  return {opening, opening->root()};
}

void Session::forget(const FilePath& path) {
  const std::u32string name = decodeFilePath(path.text());
  const std::lock_guard guard(engine()->openingMutex());
  engine()->files().forget(name);
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
  const auto opening = std::make_shared<Opening>(engine(), name, true);
  opening->take(std::move(root));
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

Store Session::openMapped(const FilePath& path, OpenOptions options) {
  const auto lockWait = options.lockWait.value_or(engine()->options().lockWait);
  const auto file = std::make_shared<const MappedFile>(engine(), path.text(), lockWait);
  const std::shared_ptr<Opening> opening = openBytes(engine(), file->bytes(), path.text(), file);
  return {opening, opening->root()};
}

MemoryUse Session::memoryUse() const {
  return engine()->memoryUse();
}

Transfers Session::transfers() const {
  const hxremote::TransferMeter& meter = *engine()->transferMeter();
  return {meter.requests, meter.bytes, std::chrono::nanoseconds(meter.nanoseconds)};
}

std::string_view version() noexcept {
  return HX_VERSION;
}

}  // namespace hxcrate
