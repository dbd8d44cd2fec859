// Items as streams of the standard library, for code that reads from or writes to one.
#pragma once

#include <cstddef>
#include <exception>
#include <istream>
#include <memory>
#include <ostream>
#include <span>
#include <streambuf>
#include <vector>

#include "hxcrate/item.hpp"

namespace hxcrate {

// What stands behind an ItemInputStream; of use of its own where a std::streambuf is wanted. Throws
// what the reader throws, also where bytes came before the failure. One thread at a time uses it.
class ItemInputBuffer : public std::streambuf {
 public:
  explicit ItemInputBuffer(Reader reader);
  ItemInputBuffer(const ItemInputBuffer&) = delete;
  ItemInputBuffer& operator=(const ItemInputBuffer&) = delete;

  void close();

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* to, std::streamsize count) override;
  std::streamsize showmanyc() override;
  // To a place between the position and the item's end; anywhere else fails and moves nothing.
  pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  std::size_t buffered() const { return static_cast<std::size_t>(egptr() - gptr()); }

  Reader reader_;
  std::vector<char> bytes_;
};

// What stands behind an ItemOutputStream. Throws what the writer throws; after a failure every
// write fails in the same way, so that no bytes follow where some are missing. One thread at a time
// uses it.
class ItemOutputBuffer : public std::streambuf {
 public:
  explicit ItemOutputBuffer(Writer writer);
  ItemOutputBuffer(const ItemOutputBuffer&) = delete;
  ItemOutputBuffer& operator=(const ItemOutputBuffer&) = delete;
  // Closes. A failure, also one that was thrown before, goes to the session's onUnreportedError.
  ~ItemOutputBuffer() override;

  // Closes the item, then throws the first failure since the beginning, if there was one.
  void close();

 protected:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* from, std::streamsize count) override;
  int sync() override;
  // Tells the position; every other place fails.
  pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                   std::ios_base::openmode which) override;

 private:
  void flush();
  void put(std::span<const char> bytes);

  Writer writer_;
  std::vector<char> bytes_;
  std::exception_ptr failure_;
};

// An item as a std::istream from the reader's position on. A failure sets badbit, and is thrown
// where exceptions() asks for it. tellg() tells the position in the item, seekg() goes to any.
// Movable; what was moved from is bad. One thread at a time uses it.
class [[nodiscard]] ItemInputStream : public std::istream {
 public:
  explicit ItemInputStream(Reader reader);
  ItemInputStream(ItemInputStream&& other) noexcept;
  ItemInputStream& operator=(ItemInputStream&& other) noexcept;  // closes what was open

  void close();  // as Reader::close

 private:
  std::unique_ptr<ItemInputBuffer> buffer_;  // null when moved from
};

// The end of an item as a std::ostream. A failure sets badbit, and is thrown where exceptions()
// asks for it; flush() hands what is buffered to the writer, not to the disk. Movable; what was
// moved from is bad. One thread at a time uses it.
class [[nodiscard]] ItemOutputStream : public std::ostream {
 public:
  explicit ItemOutputStream(Writer writer);
  ItemOutputStream(ItemOutputStream&& other) noexcept;
  ItemOutputStream& operator=(ItemOutputStream&& other) noexcept;  // closes what was open

  // Writes what is buffered and closes the item. Throws, whatever exceptions() says, when not
  // everything since the beginning was written. Without it a failure goes to the session's
  // onUnreportedError.
  void close();

 private:
  std::unique_ptr<ItemOutputBuffer> buffer_;  // null when moved from
};

}  // namespace hxcrate
