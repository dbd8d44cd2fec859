// Items opened for reading at any place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "hxcrate/error.hpp"

namespace hx {
struct ItemView;
}

namespace hxcrate {

class Opening;

// An item opened for reading at any place, by any number of threads on one object, but for its
// close and its moves. Bytes move under no lock from a store file that is open for reading, from a
// blob, a mapped file and a store in memory; under the session's from a file that is open for
// update. Nobody writes to the item meanwhile. Keeps the store file open that the item lies in.
// Movable; what was moved from is closed.
class [[nodiscard]] View {
 public:
  View() noexcept = default;  // closed
  View(View&& other) noexcept;
  View& operator=(View&& other) noexcept;  // closes what was open
  // Closes. A failure goes to the session's onUnreportedError.
  ~View();

  bool isOpen() const noexcept { return view_ != nullptr; }
  std::string path() const;  // inside the store; empty when closed

  // Of the item, bytes. Goes through all records of the item when nobody has met its end yet: then
  // it throws what a read of it would.
  std::int64_t size() const;

  // Fills `buffer` with the bytes from `offset` on, as far as the item goes, and returns how many
  // those were, 0 where the item has none; fewer than asked for only at the item's end, or before a
  // failure, which a call for what is missing throws. What lies behind them in `buffer` may have
  // changed.
  std::size_t readAt(std::int64_t offset, std::span<std::byte> buffer) const;
  std::size_t readAt(std::int64_t offset, std::span<std::byte> buffer,
                     std::error_code& error) const noexcept {
    return captureError(error, [&] { return readAt(offset, buffer); });
  }

  // Everything, as bytes or as characters of 8 bits. Throws when not all of it can be read.
  std::vector<std::byte> readAll() const;
  std::string readText() const;

  // Where the item lies in memory, that is in a blob, a mapped file or a store in memory, and
  // nothing was copied: its pages, one after the other. Valid as long as the view. None of an item
  // that lies in a file, or is empty.
  std::vector<std::span<const std::byte>> pages() const;
  // The same for one that lies in memory in one piece, as an item of one page does.
  std::optional<std::span<const std::byte>> contiguous() const;

  // Does nothing when closed. Throws notLocked, and the view stays open then.
  void close();

 private:
  friend class Store;
  friend class Reader;
  View(std::shared_ptr<Opening> opening, hx::ItemView* view) noexcept
      : opening_(std::move(opening)), view_(view) {}

  hx::ItemView* view() const;  // throws closed
  std::span<const std::byte> bytesAt(std::int64_t offset) const;
  void fill(std::span<std::byte> buffer) const;
  [[noreturn]] void fail(std::int32_t status) const;

  std::shared_ptr<Opening> opening_;
  hx::ItemView* view_ = nullptr;
};

}  // namespace hxcrate
