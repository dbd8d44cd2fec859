#include "engine.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "host/file_io.h"
#include "host/linux/file_ops.h"
#include "module_library.h"

namespace hxcrate {

namespace {

hxhost::HostOptions hostOptionsOf(const SessionOptions& options,
                                  std::shared_ptr<hxhost::FileOps> files) {
  hxhost::HostOptions hostOptions;
  hostOptions.fileOps = std::move(files);
  hostOptions.lockWait = options.lockWait;
  hostOptions.cacheBytesPerFile = options.cacheBytesPerFile;
  hostOptions.durability =
      options.durability == Durability::full ? hxhost::Durability::full : hxhost::Durability::none;
  return hostOptions;
}

hxhost::HostOptions hostOptionsOf(hxremote::RemoteFile& file) {
  hxhost::HostOptions hostOptions;
  hostOptions.files = file.files();
  return hostOptions;
}

// What a replacing open passes on when the old file can't be removed.
bool isRemovalResult(Errc code) {
  constexpr std::int32_t kResults[] = {hx::HX_REMOVE_NO_PERMISSION, hx::HX_REMOVE_IN_USE,
                                       hx::HX_REMOVE_NOT_REGULAR, hx::HX_REMOVE_IO_ERROR};
  return std::ranges::find(kResults, static_cast<std::int32_t>(code)) != std::end(kResults);
}

[[noreturn]] void failBusy(const std::string& path, const OpenRefusal& refusal) {
  FileFailure failure = translate(*refusal.failure, path);
  failure.waited = refusal.waited;
  if (refusal.holder == hxhost::Holder::kReadersHere) {
    failure.holder = "open for reading in this session";
  }
  if (refusal.holder == hxhost::Holder::kUpdaterHere) {
    failure.holder = "open for update in this session";
  }
  if (refusal.holder == hxhost::Holder::kUpdaterWaitsHere) {
    failure.holder = "waited for by an update in this session";
  }
  throw Error(Errc::storeInUse, path, "", failure);
}

}  // namespace

FileFailure translate(const hxhost::FileFailure& failure, const std::string& path,
                      bool rolledBack) {
  return {hxhost::nameOf(failure.operation), path, failure.offset,
          std::error_code(failure.error, std::system_category()), rolledBack};
}

std::optional<FileFailure> takeFailureOf(hxhost::FileOutcome& outcome, const std::string& path) {
  if (const auto loss = outcome.loss()) {
    FileFailure told = translate(*loss, path, outcome.wasRolledBack());
    told.happened = outcome.hasHappened();
    return told;
  }
  const auto failedRead = outcome.takeFailedRead();
  return failedRead ? std::optional(translate(*failedRead, path)) : std::nullopt;
}

OpenRefusal refusalOf(const hxhost::OpenRequest& request) {
  return {request.failure(), request.holder(), request.waited()};
}

void failOpening(const std::string& path, const OpenRefusal& refusal, Errc code, bool mayCreate) {
  if (isRemovalResult(code)) code = Errc::fileNotOpen;
  if (code == Errc::notFound) code = refusal.failure ? Errc::fileNotOpen : Errc::notAStore;
  if (!refusal.failure) throw Error(code, path, "");
  const int error = refusal.failure->error;
  if (error == EEXIST) throw Error(Errc::exists, path, "");
  if (error == ENOENT && !mayCreate) throw Error(Errc::notFound, path, "");
  if (error == EBUSY) failBusy(path, refusal);
  throw Error(code, path, "", translate(*refusal.failure, path));
}

Engine::Engine(SessionOptions options, std::shared_ptr<hxhost::FileOps> files)
    : options_(std::move(options)),
      fileOps_(files != nullptr ? std::move(files) : hxhost::makeSystemFileOps()),
      host_(hostOptionsOf(options_, fileOps_)),
      module_(makeModuleInstance(host_.handle())),
      files_(module_, options_.cachedStores) {}

Engine::Engine(SessionOptions options, std::shared_ptr<hxremote::RemoteFile> file)
    : options_(std::move(options)),
      remoteFile_(std::move(file)),
      host_(hostOptionsOf(*remoteFile_)),
      module_(makeModuleInstance(host_.handle())),
      files_(module_, 0) {}

Session Engine::makeSession(std::shared_ptr<Engine> engine) {
  return Session(std::move(engine));
}

Engine::~Engine() {
  module_->destroy(module_);
}

std::shared_ptr<hx::Pool> Engine::makePool(std::shared_ptr<Engine> self) {
  constexpr std::uint8_t kNoParameters[24] = {};
  hx::HostHandle* host = self->host();
  hx::Pool* pool = host->createPool(host, kNoParameters, 0, "Blob");
  if (pool == nullptr) throw std::bad_alloc();
  return {pool, [self = std::move(self)](hx::Pool* unused) { unused->head.destroy(unused); }};
}

MemoryUse Engine::memoryUse() const {
  const hxhost::PoolUse use = host_.poolUse();
  return {use.bytes, use.blocks, use.peakBytes};
}

// Whoever abandoned an update knows that what was written is lost.
void Engine::report(const Error& error) noexcept {
  if (!options_.onUnreportedError || error.errc() == Errc::abandoned) return;
  try {
    options_.onUnreportedError(error);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to pass it on to
  }
}

void Engine::reportNoMemory(const std::string& store) noexcept {
  try {
    report(Error(Errc::noMemory, store, ""));
  } catch (...) {  // NOLINT(bugprone-empty-catch): no memory even to say so
  }
}

}  // namespace hxcrate
