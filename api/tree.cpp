#include "tree.h"

#include <utility>

#include "host/linux/path_codec.h"

namespace hxcrate {

namespace {

std::string resolvePath(hx::Store* root) {
  char32_t path[hx::HX_PATH_CAPACITY];
  int32_t length = hx::HX_PATH_CAPACITY;
  root->path(root, path, &length);
  return hxhost::describePath(path, length);
}

}  // namespace

Tree::Tree(std::shared_ptr<Engine> engine, hx::Store* root, std::string path, bool writable)
    : engine_(std::move(engine)),
      root_(root),
      path_(std::move(path)),
      filePath_(resolvePath(root)),
      writable_(writable) {}

Tree::~Tree() {
  try {
    close();
  } catch (const Error& error) {
    engine_->reportUnreported(error);
  } catch (...) {
    engine_->reportUnreported(Error(Errc::noMemory, path_, ""));
  }
}

std::optional<FileFailure> Tree::takeFailure() {
  return engine_->takeTransferFailure(filePath_);
}

void Tree::fail(std::int32_t status, const std::string& member) {
  const Errc code = static_cast<Errc>(status);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(code, path_, member, *failure);
  }
  throw Error(code, path_, member);
}

void Tree::close() {
  if (root_ == nullptr) return;
  const std::lock_guard guard(engine_->openingMutex());
  hx::Store* root = std::exchange(root_, nullptr);
  root->closeStore(root);
  if (std::optional<FileFailure> failure = takeFailure()) {
    throw Error(Errc::fileFailed, path_, "", *failure);
  }
}

}  // namespace hxcrate
