#include "hxcrate/item.hpp"

#include <array>
#include <limits>
#include <utility>

#include "host/linux/conversion.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

namespace {

constexpr std::size_t kLongestTransfer = std::numeric_limits<std::int32_t>::max();
// What is converted needs as much memory again, so it goes in pieces: whole elements of any width.
constexpr std::size_t kConvertedPiece = std::size_t{64} << 10;
// What is lost is known after each.
constexpr std::size_t kWrittenPiece = std::size_t{8} << 20;
constexpr std::size_t kSkippedPiece = std::size_t{16} << 10;

}  // namespace

OpenItem::OpenItem(std::shared_ptr<Opening> opening, hx::ItemHandle* handle) noexcept
    : opening_(std::move(opening)), handle_(handle) {}

OpenItem::OpenItem(OpenItem&& other) noexcept
    : opening_(std::move(other.opening_)), handle_(std::exchange(other.handle_, nullptr)) {}

OpenItem& OpenItem::operator=(OpenItem&& other) noexcept {
  OpenItem taken(std::move(other));
  std::swap(opening_, taken.opening_);
  std::swap(handle_, taken.handle_);
  return *this;
}

OpenItem::~OpenItem() {
  if (handle_ == nullptr) return;
  opening_->engine().reportFailureOf(opening_->path(), [this] { close(); });
}

std::int64_t OpenItem::size() const {
  return handle()->item->size;
}

std::int64_t OpenItem::position() const {
  return handle()->position;
}

std::string OpenItem::path() const {
  return handle_ == nullptr ? std::string() : pathOf(*handle_->item);
}

void OpenItem::close() {
  if (handle_ == nullptr) return;
  const hx::ItemMember& item = *handle_->item;
  const bool wasWriter = handle_->access == hx::kUpdate;
  if (item.close(handle_) != 0) fail(hx::kNotLocked);
  handle_ = nullptr;
  const std::shared_ptr<Opening> opening = std::move(opening_);
  if (!wasWriter) return;
  --opening->writers();
  opening->requireKept(item);
}

hx::ItemHandle* OpenItem::handle() const {
  if (handle_ == nullptr) throw Error(Errc::closed, "", "");
  return handle_;
}

void OpenItem::fail(std::int32_t status) const {
  opening_->fail(status, path());
}

void OpenItem::refuse(Errc code, std::string_view detail) const {
  throw Error(code, opening_->path(), path(), detail);
}

std::size_t Reader::read(std::span<std::byte> buffer) {
  return transfer(buffer, 1);
}

std::size_t Reader::skip(std::size_t count) {
  std::array<std::byte, kSkippedPiece> unused;
  std::size_t skipped = 0;
  while (skipped < count) {
    const std::size_t piece = std::min(unused.size(), count - skipped);
    const std::size_t passed = read(std::span(unused).first(piece));
    if (passed == 0) break;
    skipped += passed;
  }
  return skipped;
}

std::size_t Reader::countLeft(std::size_t width, std::size_t wanted) const {
  const auto bytes = static_cast<std::size_t>(size() - position());
  const std::size_t rest = bytes % width;
  if (rest != 0 && bytes / width < wanted) {
    refuse(Errc::cutElement,
           "bytes left: " + std::to_string(bytes) + ", in an element: " + std::to_string(width));
  }
  return bytes / width;
}

std::size_t Reader::transfer(std::span<std::byte> buffer, std::size_t width) {
  hx::ItemHandle* item = handle();
  opening()->requireKept(*item->item);
  hx::ItemConversion conversion{static_cast<std::int32_t>(width), 0};
  void* argument = width == 1 ? nullptr : &conversion;
  const std::size_t longest = width == 1 ? kLongestTransfer : kConvertedPiece;
  std::size_t total = 0;
  std::int32_t status = std::exchange(pendingStatus_, hx::kOk);
  while (status == hx::kOk && total < buffer.size()) {
    const auto length = static_cast<std::int32_t>(std::min(buffer.size() - total, longest));
    total += item->item->read(item, buffer.data() + total, length, argument, &status);
  }
  if (status == hx::kEndOfItem) status = position() < size() ? hx::kUnreadable : hx::kOk;
  if (status == hx::kOk) return total;
  if (total == 0) fail(status);
  pendingStatus_ = status;
  return total;
}

void Reader::fill(std::span<std::byte> buffer, std::size_t width) {
  for (std::size_t done = 0; done < buffer.size();) {
    const std::size_t count = transfer(buffer.subspan(done), width);
    if (count == 0) fail(hx::kUnreadable);
    done += count;
  }
}

void Writer::write(std::span<const std::byte> bytes) {
  hx::ItemHandle* item = handle();
  if (bytes.size() > static_cast<std::size_t>(kItemCapacity - item->position)) {
    refuse(Errc::itemFull, "");
  }
  if (bytes.empty()) return;  // the module would write the page again for nothing
  opening()->requireWhole(*item->item);
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), kWrittenPiece))) {
    const std::size_t count = std::min(bytes.size(), kWrittenPiece);
    std::int32_t status = hx::kOk;
    item->item->write(item, bytes.data(), static_cast<std::int32_t>(count), &status);
    opening()->requireWhole(*item->item);
    if (status != hx::kOk) fail(status);
  }
}

}  // namespace hxcrate
