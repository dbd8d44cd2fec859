// Items: named byte streams, read from their start and written at their end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace hx {
struct ItemHandle;
}

namespace hxcrate {

class Tree;

constexpr std::int64_t kItemCapacity = 2147483647;  // bytes

// One opening of an item. Keeps the store file open that the item lies in. Movable; what was moved
// from is closed. One thread at a time uses it.
class OpenItem {
 public:
  OpenItem(std::shared_ptr<Tree> tree, hx::ItemHandle* handle, std::string path);
  OpenItem(OpenItem&& other) noexcept;
  OpenItem& operator=(OpenItem&& other) noexcept;
  ~OpenItem();

  bool isOpen() const noexcept { return handle_ != nullptr; }
  std::int64_t size() const;                                  // of the item, bytes
  std::int64_t position() const;                              // of the next byte
  const std::string& path() const noexcept { return path_; }  // inside the store
  void close();  // does nothing when closed; throws notLocked, and the item stays open then

 protected:
  hx::ItemHandle* handle() const;  // throws closed
  const std::string& storePath() const;
  [[noreturn]] void fail(std::int32_t status) const;

 private:
  std::shared_ptr<Tree> tree_;
  hx::ItemHandle* handle_;
  std::string path_;
};

// Reads an item from its start. Any number of readers may have one item open.
class Reader : public OpenItem {
 public:
  using OpenItem::OpenItem;

  // Fills `buffer` as far as the item goes and returns how many bytes that were; less than asked
  // for only at the item's end, or before a failure that the next call throws.
  std::size_t read(std::span<std::byte> buffer);

  // Everything from the position to the item's end.
  std::vector<std::byte> readAll();

 private:
  std::int32_t pendingStatus_ = 0;  // the failure behind the bytes that the last read delivered
};

// Writes at the end of an item. Nobody else has the item open meanwhile.
class Writer : public OpenItem {
 public:
  using OpenItem::OpenItem;

  // Appends all of `bytes`. Throws itemFull, with nothing written, when they would take the item
  // past kItemCapacity; noMemory, with some of them written, when there is none for a page.
  void write(std::span<const std::byte> bytes);
  void write(std::string_view text) { write(std::as_bytes(std::span(text))); }
};

}  // namespace hxcrate
