// Items: named byte streams, read from their start or at any place, and written at their end.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "hxcrate/error.hpp"
#include "hxcrate/view.hpp"

namespace hx {
struct ItemHandle;
struct ItemMember;
}  // namespace hx

namespace hxcrate {

class Opening;

constexpr std::int64_t kItemCapacity = 2147483647;  // bytes

// What an array may be made of: integers of 1, 2, 4 or 8 bytes, float and double.
template <typename T>
concept Element = (std::integral<T> && !std::same_as<std::remove_cv_t<T>, bool> &&
                   sizeof(T) <= 8) ||
                  std::same_as<T, float> || std::same_as<T, double>;

// What holds bytes in a row, one each, and is not text or a span of std::byte already:
// vector<char>, u8string, array<unsigned char>, ... An array of the language is none: its end may
// be a zero more.
template <typename T>
concept ByteSequence =
    std::ranges::contiguous_range<const T> && std::ranges::sized_range<const T> &&
    (std::same_as<std::ranges::range_value_t<const T>, char> ||
     std::same_as<std::ranges::range_value_t<const T>, signed char> ||
     std::same_as<std::ranges::range_value_t<const T>, unsigned char> ||
     std::same_as<std::ranges::range_value_t<const T>, char8_t> ||
     std::same_as<std::ranges::range_value_t<const T>, std::byte>)&&!std::is_array_v<T> &&
    !std::convertible_to<const T&, std::string_view> &&
    !std::convertible_to<const T&, std::span<const std::byte>>;

// One opening of an item, either a Reader or a Writer. Keeps the store file open that the item lies
// in. Movable; what was moved from is closed. One thread at a time uses it; several threads may
// each have one of the same item.
class OpenItem {
 public:
  OpenItem(const OpenItem&) = delete;
  OpenItem& operator=(const OpenItem&) = delete;

  bool isOpen() const noexcept { return item_ != nullptr; }
  std::int64_t size() const;      // of the item, bytes
  std::int64_t position() const;  // of the next byte
  std::string path() const;       // inside the store; empty when closed

  // Does nothing when closed. Throws notLocked, and the item stays open then; a Writer of an update
  // that was abandoned is closed and throws that.
  void close();
  void close(std::error_code& error) noexcept {
    captureError(error, [&] { close(); });
  }

 protected:
  OpenItem() noexcept = default;
  OpenItem(std::shared_ptr<Opening> opening, hx::ItemHandle* handle) noexcept;
  OpenItem(std::shared_ptr<Opening> opening, hx::ItemMember* item) noexcept;
  OpenItem(OpenItem&& other) noexcept;
  OpenItem& operator=(OpenItem&& other) noexcept;  // closes what was open
  // Closes. A failure goes to the session's onUnreportedError.
  ~OpenItem();

  hx::ItemMember* item() const;  // throws closed, and what its update is over by
  hx::ItemHandle* handle();      // the same, and opens the item where that was put off
  [[noreturn]] void fail(std::int32_t status) const;
  [[noreturn]] void refuse(Errc code, std::string_view detail) const;
  const std::shared_ptr<Opening>& opening() const noexcept { return opening_; }  // of an open item

 private:
  std::shared_ptr<Opening> opening_;
  hx::ItemMember* item_ = nullptr;
  hx::ItemHandle* handle_ = nullptr;  // null as long as nobody needs one
};

// Reads an item from its start, or from where it is sent. Any number of readers may have one item
// open. Of a file that is open for reading, damage of the item is told by the first call that meets
// it.
class [[nodiscard]] Reader : public OpenItem {
 public:
  Reader() noexcept = default;  // closed

  // Fills `buffer` as far as the item goes and returns how many bytes that were; less than asked
  // for only at the item's end, or before a failure that the next call throws.
  std::size_t read(std::span<std::byte> buffer);
  std::size_t read(std::span<std::byte> buffer, std::error_code& error) noexcept {
    return captureError(error, [&] { return read(buffer); });
  }

  // Everything from the position to the item's end, as bytes or as characters of 8 bits. Throws
  // when not all of it can be read.
  std::vector<std::byte> readAll() { return readRest<std::vector<std::byte>>(); }
  std::string readText() { return readRest<std::string>(); }
  std::vector<std::byte> readAll(std::error_code& error) noexcept {
    return captureError(error, [&] { return readAll(); });
  }
  std::string readText(std::error_code& error) noexcept {
    return captureError(error, [&] { return readText(); });
  }

  // The same as numbers, which a writer stores by write(std::as_bytes(...)). In a store file of
  // another byte order the bytes of each are turned. Throws cutElement, with nothing read, when
  // what is left of the item is no whole number of them.
  template <Element T>
  std::vector<T> readArray() {
    return readRest<std::vector<T>>();
  }

  // Fills `elements` as far as the item goes and returns how many that were. Throws as above when
  // the item ends before they are full, and when not all of them can be read.
  template <Element T, std::size_t Extent>
  std::size_t readArray(std::span<T, Extent> elements) {
    const std::size_t count = std::min(elements.size(), countLeft(sizeof(T), elements.size()));
    fill(std::as_writable_bytes(elements.first(count)), sizeof(T));
    return count;
  }

  std::int64_t tell() const { return position(); }
  std::int64_t position() const;

  // Goes to any place from 0 to the item's end, or throws endOfItem and stays. None of the item's
  // bytes is read.
  void seek(std::int64_t position);

  // Passes over `count` bytes, or over -`count` back, but not past the item's ends, and returns how
  // far it went. They are not read.
  std::int64_t skip(std::int64_t count);
  std::int64_t skip(std::int64_t count, std::error_code& error) noexcept {
    return captureError(error, [&] { return skip(count); });
  }

  void close();  // as OpenItem's
  void close(std::error_code& error) noexcept {
    captureError(error, [&] { close(); });
  }

 private:
  friend class Store;
  Reader(std::shared_ptr<Opening> opening, hx::ItemHandle* handle) noexcept
      : OpenItem(std::move(opening), handle) {}
  // Of a file that is open for reading, where the item stays what it is: opening it would go
  // through all of its records, which reading much of it at once does not need.
  Reader(std::shared_ptr<Opening> opening, hx::ItemMember* item) noexcept
      : OpenItem(std::move(opening), item) {}

  template <typename Elements>
  Elements readRest() {
    constexpr std::size_t kWidth = sizeof(typename Elements::value_type);
    Elements elements;
    elements.resize(countLeft(kWidth, kItemCapacity));
    fill(std::as_writable_bytes(std::span(elements)), kWidth);
    return elements;
  }

  // How many elements of `width` bytes are left. Throws cutElement when they are fewer than
  // `wanted` and there are bytes behind the last.
  std::size_t countLeft(std::size_t width, std::size_t wanted) const;
  std::size_t transfer(std::span<std::byte> buffer, std::size_t width);
  void leave(std::int64_t position);
  bool isFasterAway(std::size_t count) const;
  std::size_t readAway(std::span<std::byte> buffer, std::size_t width);
  std::size_t readAhead(std::span<std::byte> buffer, bool mayWait);
  // All of `buffer`, of which the item has enough, or throws.
  void fill(std::span<std::byte> buffer, std::size_t width);

  std::int32_t pendingStatus_ = 0;  // the failure behind the bytes that the last read delivered

  // Open once the reader went to another place, or reads so much at once that this is the faster
  // way. Then the position is here and no longer the handle's.
  View view_;
  std::int64_t position_ = 0;
  std::vector<std::byte> ahead_;  // for small reads, from aheadFrom_ on
  std::int64_t aheadFrom_ = 0;
};

// Writes at the end of an item. Nobody else has the item open meanwhile.
class [[nodiscard]] Writer : public OpenItem {
 public:
  Writer() noexcept = default;  // closed

  // Appends all of `bytes`. Throws itemFull, with nothing written, when they would take the item
  // past kItemCapacity; noMemory, with some of them written, when there is none for a page; and as
  // soon as the disk has refused a byte of the update, by whomever, fileFailed.
  void write(std::span<const std::byte> bytes);
  void write(std::string_view text) { write(std::as_bytes(std::span(text))); }
  template <ByteSequence Bytes>
  void write(const Bytes& bytes) {
    write(std::as_bytes(std::span(std::ranges::data(bytes), std::ranges::size(bytes))));
  }
  void write(std::span<const std::byte> bytes, std::error_code& error) noexcept {
    captureError(error, [&] { write(bytes); });
  }
  void write(std::string_view text, std::error_code& error) noexcept {
    write(std::as_bytes(std::span(text)), error);
  }
  template <ByteSequence Bytes>
  void write(const Bytes& bytes, std::error_code& error) noexcept {
    write(std::as_bytes(std::span(std::ranges::data(bytes), std::ranges::size(bytes))), error);
  }

 private:
  friend class Store;
  friend class ItemOutputBuffer;
  Writer(std::shared_ptr<Opening> opening, hx::ItemHandle* handle) noexcept
      : OpenItem(std::move(opening), handle) {}
};

}  // namespace hxcrate
