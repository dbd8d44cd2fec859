#include "hxcrate/item.hpp"

#include <algorithm>
#include <limits>
#include <utility>

#include "hxcrate/error.hpp"
#include "store/status.h"
#include "tree.h"

namespace hxcrate {

namespace {

constexpr std::size_t kLongestTransfer = std::numeric_limits<std::int32_t>::max();

std::int32_t transferLength(std::size_t bytes) {
  return static_cast<std::int32_t>(std::min(bytes, kLongestTransfer));
}

}  // namespace

OpenItem::OpenItem(std::shared_ptr<Tree> tree, hx::ItemHandle* handle, std::string path)
    : tree_(std::move(tree)), handle_(handle), path_(std::move(path)) {}

OpenItem::OpenItem(OpenItem&& other) noexcept
    : tree_(std::move(other.tree_)),
      handle_(std::exchange(other.handle_, nullptr)),
      path_(std::move(other.path_)) {}

// The old handle goes with `other`.
OpenItem& OpenItem::operator=(OpenItem&& other) noexcept {
  std::swap(tree_, other.tree_);
  std::swap(handle_, other.handle_);
  std::swap(path_, other.path_);
  return *this;
}

OpenItem::~OpenItem() {
  try {
    close();
  } catch (const Error& error) {
    tree_->engine().reportUnreported(error);
  } catch (...) {  // NOLINT(bugprone-empty-catch): no memory even to say so
  }
}

std::int64_t OpenItem::size() const {
  return handle()->item->size;
}

std::int64_t OpenItem::position() const {
  return handle()->position;
}

void OpenItem::close() {
  if (handle_ == nullptr) return;
  if (handle_->item->close(handle_) != 0) fail(hx::kNotLocked);
  handle_ = nullptr;
  tree_.reset();
}

hx::ItemHandle* OpenItem::handle() const {
  if (handle_ == nullptr) throw Error(Errc::closed, "", path_);
  return handle_;
}

const std::string& OpenItem::storePath() const {
  return tree_->path();
}

void OpenItem::fail(std::int32_t status) const {
  tree_->fail(status, path_);
}

std::size_t Reader::read(std::span<std::byte> buffer) {
  hx::ItemHandle* item = handle();
  std::size_t total = 0;
  std::int32_t status = std::exchange(pendingStatus_, hx::kOk);
  while (status == hx::kOk && total < buffer.size()) {
    const std::span<std::byte> rest = buffer.subspan(total);
    total += item->item->read(item, rest.data(), transferLength(rest.size()), nullptr, &status);
  }
  if (status == hx::kEndOfItem) status = position() < size() ? hx::kUnreadable : hx::kOk;
  if (status == hx::kOk) return total;
  if (total == 0) fail(status);
  pendingStatus_ = status;
  return total;
}

std::vector<std::byte> Reader::readAll() {
  std::vector<std::byte> bytes(static_cast<std::size_t>(size() - position()));
  const std::size_t count = read(bytes);
  // The reason why there is less than the item's length is waiting: ask for it.
  if (count < bytes.size()) read(std::span(bytes).subspan(count));
  return bytes;
}

void Writer::write(std::span<const std::byte> bytes) {
  hx::ItemHandle* item = handle();
  if (bytes.size() > static_cast<std::size_t>(kItemCapacity - item->position)) {
    throw Error(Errc::itemFull, storePath(), path());
  }
  std::int32_t status = hx::kOk;
  item->item->write(item, bytes.data(), transferLength(bytes.size()), &status);
  if (status != hx::kOk) fail(status);
}

}  // namespace hxcrate
