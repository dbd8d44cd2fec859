#include "engine.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

#include "host/file_io.h"
#include "host/linux/path_codec.h"
#include "module_library.h"

namespace hxcrate {

namespace {

FileFailure translate(hxhost::FileFailure failure) {
  return {std::move(failure.operation), std::move(failure.path), failure.offset,
          std::error_code(failure.error, std::system_category()), failure.rolledBack};
}

hxhost::HostOptions hostOptionsOf(const SessionOptions& options) {
  hxhost::HostOptions hostOptions;
  hostOptions.lockWait = options.lockWait;
  hostOptions.cacheBytesPerFile = options.cacheBytesPerFile;
  hostOptions.durability =
      options.durability == Durability::full ? hxhost::Durability::full : hxhost::Durability::none;
  return hostOptions;
}

// What a replacing open passes on when the old file can't be removed.
bool isRemovalResult(Errc code) {
  constexpr std::int32_t kResults[] = {hx::HX_REMOVE_NO_PERMISSION, hx::HX_REMOVE_IN_USE,
                                       hx::HX_REMOVE_NOT_REGULAR, hx::HX_REMOVE_IO_ERROR};
  return std::ranges::find(kResults, static_cast<std::int32_t>(code)) != std::end(kResults);
}

}  // namespace

Engine::Engine(SessionOptions options)
    : options_(std::move(options)),
      host_(hostOptionsOf(options_)),
      module_(makeModuleInstance(host_.handle())) {}

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

std::optional<FileFailure> Engine::takeFailure(const std::string& path) {
  std::optional<FileFailure> worst;
  // One without a path, which there was no memory for, is told to whoever asks first.
  for (const std::string& known : {path, std::string()}) {
    while (std::optional<hxhost::FileFailure> next = host_.takeFileFailure(known)) {
      if (!worst || worst->operation == "read") worst = translate(*std::move(next));
    }
  }
  return worst;
}

// Of the open, or of the reading that the open did.
std::optional<FileFailure> Engine::takeOpeningFailure(const std::u32string& wide) {
  const std::string asked = hxhost::describePath(wide.data(), static_cast<int64_t>(wide.size()));
  if (std::optional<FileFailure> failure = takeFailure(asked)) return failure;
  std::error_code ignored;
  return takeFailure(std::filesystem::weakly_canonical(asked, ignored).string());
}

void Engine::failOpening(const std::string& path, const std::u32string& wide, Errc code,
                         bool mayCreate) {
  const std::optional<FileFailure> failure = takeOpeningFailure(wide);
  if (isRemovalResult(code)) code = Errc::fileNotOpen;
  if (code == Errc::notFound) code = failure ? Errc::fileNotOpen : Errc::notAStore;
  if (!failure) throw Error(code, path, "");
  if (failure->reason == std::errc::file_exists) throw Error(Errc::exists, path, "");
  if (failure->reason == std::errc::no_such_file_or_directory && !mayCreate) {
    throw Error(Errc::notFound, path, "");
  }
  if (failure->reason == std::errc::device_or_resource_busy) code = Errc::storeInUse;
  throw Error(code, path, "", *failure);
}

void Engine::report(const Error& error) noexcept {
  if (!options_.onUnreportedError) return;
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
