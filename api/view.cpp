#include "hxcrate/view.hpp"

#include <algorithm>
#include <limits>

#include "item/item_view.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

View::View(View&& other) noexcept
    : opening_(std::move(other.opening_)), view_(std::exchange(other.view_, nullptr)) {}

View& View::operator=(View&& other) noexcept {
  View taken(std::move(other));
  std::swap(opening_, taken.opening_);
  std::swap(view_, taken.view_);
  return *this;
}

View::~View() {
  if (view_ == nullptr) return;
  opening_->engine().reportFailureOf(opening_->path(), [this] { close(); });
}

std::string View::path() const {
  return view_ == nullptr ? std::string() : pathOf(*view_->item);
}

std::int64_t View::size() const {
  std::int32_t status = hx::kOk;
  const std::int64_t size = view()->size(view_, &status);
  if (size < 0) fail(status);
  return size;
}

std::size_t View::readAt(std::int64_t offset, std::span<std::byte> buffer) const {
  constexpr std::size_t kLongest = std::numeric_limits<std::int32_t>::max();
  const auto length = static_cast<std::int32_t>(std::min(buffer.size(), kLongest));
  std::int32_t status = hx::kOk;
  const std::int32_t count = view()->readAt(view_, offset, buffer.data(), length, &status);
  if (count == 0 && status != hx::kOk && status != hx::kEndOfItem) fail(status);
  return static_cast<std::size_t>(count);
}

std::vector<std::byte> View::readAll() const {
  std::vector<std::byte> bytes(static_cast<std::size_t>(size()));
  fill(bytes);
  return bytes;
}

std::string View::readText() const {
  std::string text(static_cast<std::size_t>(size()), '\0');
  fill(std::as_writable_bytes(std::span(text)));
  return text;
}

std::vector<std::span<const std::byte>> View::pages() const {
  std::vector<std::span<const std::byte>> pages;
  std::int64_t offset = 0;
  for (auto page = bytesAt(0); !page.empty(); page = bytesAt(offset)) {
    pages.push_back(page);
    offset += std::ssize(page);
  }
  return pages;
}

std::optional<std::span<const std::byte>> View::contiguous() const {
  const std::span<const std::byte> first = bytesAt(0);
  if (first.empty() || !bytesAt(std::ssize(first)).empty()) return std::nullopt;
  return first;
}

void View::close() {
  if (view_ == nullptr) return;
  if (view_->close(view_) != 0) fail(hx::kNotLocked);
  view_ = nullptr;
  opening_.reset();
}

hx::ItemView* View::view() const {
  if (view_ == nullptr) throw Error(Errc::closed, "", "");
  opening_->requireKept(*view_->item);
  return view_;
}

// The rest of the page from there on; empty at the item's end and in a file.
std::span<const std::byte> View::bytesAt(std::int64_t offset) const {
  std::int32_t status = hx::kOk;
  std::int64_t count = 0;
  const void* bytes = view()->bytesAt(view_, offset, &count, &status);
  if (status != hx::kOk && status != hx::kEndOfItem) fail(status);
  return {static_cast<const std::byte*>(bytes), static_cast<std::size_t>(count)};
}

// With the item's first bytes, of which there are enough.
void View::fill(std::span<std::byte> buffer) const {
  for (std::size_t done = 0; done < buffer.size();) {
    const std::size_t count = readAt(static_cast<std::int64_t>(done), buffer.subspan(done));
    if (count == 0) fail(hx::kUnreadable);
    done += count;
  }
}

void View::fail(std::int32_t status) const {
  opening_->fail(status, path());
}

}  // namespace hxcrate
