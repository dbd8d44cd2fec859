#include "engine.h"

#include <algorithm>
#include <utility>

#include "module_library.h"

namespace hxcrate {

namespace {

FileFailure translate(hxhost::FileFailure failure) {
  return {std::move(failure.operation), std::move(failure.path), failure.offset,
          std::error_code(failure.error, std::system_category())};
}

}  // namespace

Engine::Engine(SessionOptions options)
    : options_(std::move(options)), module_(makeModuleInstance(host_.handle())) {}

Engine::~Engine() {
  module_->destroy(module_);
}

MemoryUse Engine::memoryUse() const {
  const hxhost::PoolUse use = host_.poolUse();
  return {use.bytes, use.blocks, use.peakBytes};
}

std::optional<FileFailure> Engine::takeOpenFailure(const std::string& path) {
  return takeFailure(path, true);
}

std::optional<FileFailure> Engine::takeTransferFailure(const std::string& path) {
  return takeFailure(path, false);
}

// A failure without a path (there was no memory for it) is told to whoever asks first.
std::optional<FileFailure> Engine::takeFailure(const std::string& path, bool ofOpening) {
  const std::lock_guard guard(failuresMutex_);
  while (std::optional<hxhost::FileFailure> failure = host_.takeFileFailure()) {
    failures_.push_back(translate(*std::move(failure)));
  }
  const auto isWanted = [&](const FileFailure& failure) {
    const bool isOfOpening = failure.operation == "open" || failure.operation == "remove";
    return isOfOpening == ofOpening && (failure.path.empty() || failure.path == path);
  };
  const auto found = std::find_if(failures_.begin(), failures_.end(), isWanted);
  if (found == failures_.end()) return std::nullopt;
  FileFailure first = std::move(*found);
  failures_.erase(found);
  std::erase_if(failures_, isWanted);
  return first;
}

void Engine::reportUnreported(const Error& error) noexcept {
  if (!options_.onUnreportedError) return;
  try {
    options_.onUnreportedError(error);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to pass it on to
  }
}

}  // namespace hxcrate
