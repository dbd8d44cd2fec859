#include "hxcrate/item.hpp"

#include <limits>
#include <utility>

#include "host/linux/byte_order.h"
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
constexpr std::size_t kReadAwayFrom = std::size_t{32} << 10;
constexpr std::size_t kReadAhead = 4096;  // a reader holds a page's worth

}  // namespace

OpenItem::OpenItem(std::shared_ptr<Opening> opening, hx::ItemHandle* handle) noexcept
    : opening_(std::move(opening)), item_(handle->item), handle_(handle) {}

OpenItem::OpenItem(std::shared_ptr<Opening> opening, hx::ItemMember* item) noexcept
    : opening_(std::move(opening)), item_(item) {}

OpenItem::OpenItem(OpenItem&& other) noexcept
    : opening_(std::move(other.opening_)),
      item_(std::exchange(other.item_, nullptr)),
      handle_(std::exchange(other.handle_, nullptr)) {}

OpenItem& OpenItem::operator=(OpenItem&& other) noexcept {
  OpenItem taken(std::move(other));
  std::swap(opening_, taken.opening_);
  std::swap(item_, taken.item_);
  std::swap(handle_, taken.handle_);
  return *this;
}

OpenItem::~OpenItem() {
  if (item_ == nullptr) return;
  opening_->engine().reportFailureOf(opening_->path(), [this] { close(); });
}

std::int64_t OpenItem::size() const {
  hx::ItemMember* open = item();
  if (handle_ != nullptr) return open->size;
  std::int32_t status = hx::kOk;
  const std::int64_t size = open->extension->sizeOfItem(open, &status);
  if (size < 0) fail(status);
  return size;
}

std::int64_t OpenItem::position() const {
  item();
  return handle_ != nullptr ? handle_->position : 0;
}

std::string OpenItem::path() const {
  return item_ == nullptr ? std::string() : pathOf(*item_);
}

void OpenItem::close() {
  if (item_ == nullptr) return;
  const bool wasWriter = handle_ != nullptr && handle_->access == hx::kUpdate;
  if (handle_ != nullptr && item_->close(handle_) != 0) fail(hx::kNotLocked);
  handle_ = nullptr;
  const hx::ItemMember& item = *std::exchange(item_, nullptr);
  const std::shared_ptr<Opening> opening = std::move(opening_);
  if (!wasWriter) return;
  --opening->writers();
  opening->requireKept(item);
}

hx::ItemMember* OpenItem::item() const {
  if (item_ == nullptr) throw Error(Errc::closed, "", "");
  opening_->requireKept(*item_);
  return item_;
}

hx::ItemHandle* OpenItem::handle() {
  const hx::ItemMember& open = *item();
  if (handle_ != nullptr) return handle_;
  std::int32_t status = hx::kOk;
  handle_ = open.extension->openItem(open.extension, open.parent, open.name, open.nameLength,
                                     hx::kRead, &status);
  if (handle_ == nullptr) fail(status);
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

std::int64_t Reader::position() const {
  const std::int64_t unmoved = OpenItem::position();
  return view_.isOpen() ? position_ : unmoved;
}

void Reader::seek(std::int64_t position) {
  if (position < 0 || position > size()) {
    refuse(Errc::endOfItem, "there is no place " + std::to_string(position) + " in it");
  }
  if (position != this->position()) leave(position);
}

std::int64_t Reader::skip(std::int64_t count) {
  const std::int64_t from = position();
  seek(from + std::clamp(count, -from, size() - from));
  return position() - from;
}

void Reader::close() {
  view_.close();
  OpenItem::close();
}

void Reader::leave(std::int64_t position) {
  if (!view_.isOpen()) {
    const hx::ItemMember& open = *item();
    std::int32_t status = hx::kOk;
    hx::ItemView* view =
        open.extension->openView(open.extension, open.parent, open.name, open.nameLength, &status);
    if (view == nullptr) fail(status);
    view_ = View(opening(), view);
  }
  position_ = position;
  pendingStatus_ = hx::kOk;
}

// Past the cache of a file that is open for reading, where that takes fewer steps.
bool Reader::isFasterAway(std::size_t count) const {
  return count >= kReadAwayFrom && opening()->isReadFile();
}

// Elements of a store of the other byte order are turned; the two are all that stores can have.
std::size_t Reader::readAway(std::span<std::byte> buffer, std::size_t width) {
  std::size_t total = 0;
  while (total < buffer.size()) {
    const std::size_t count = readAhead(buffer.subspan(total), total > 0);
    if (count == 0) break;
    position_ += static_cast<std::int64_t>(count);
    total += count;
  }
  const hx::Store& store = *item()->parent;
  if (!std::ranges::equal(store.encodingId.bytes, store.extension->encodingId.bytes)) {
    hxhost::swapElements(reinterpret_cast<std::uint8_t*>(buffer.data()),
                         static_cast<std::int64_t>(total), static_cast<std::int64_t>(width));
  }
  return total;
}

// Some bytes from the position on; 0 at the item's end, and before a failure that may wait.
std::size_t Reader::readAhead(std::span<std::byte> buffer, bool mayWait) try {
  if (buffer.size() >= kReadAhead) return view_.readAt(position_, buffer);
  const std::int64_t known = aheadFrom_ + std::ssize(ahead_);
  if (position_ < aheadFrom_ || position_ >= known) {
    ahead_.resize(kReadAhead);
    ahead_.resize(view_.readAt(position_, ahead_));
    aheadFrom_ = position_;
  }
  const auto ready = std::span(ahead_).subspan(static_cast<std::size_t>(position_ - aheadFrom_));
  const std::size_t count = std::min(ready.size(), buffer.size());
  std::copy_n(ready.begin(), count, buffer.begin());
  return count;
} catch (const Error&) {
  if (!mayWait) throw;
  return 0;
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
  item();
  const bool isSound = pendingStatus_ == hx::kOk;
  if (!view_.isOpen() && isSound && isFasterAway(buffer.size())) leave(position());
  if (view_.isOpen()) return readAway(buffer, width);
  hx::ItemHandle* item = handle();
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
