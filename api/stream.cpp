#include "hxcrate/stream.hpp"

#include <algorithm>
#include <utility>

#include "opening.h"

namespace hxcrate {

namespace {

constexpr std::size_t kBufferSize = std::size_t{16} << 10;

const std::streambuf::pos_type kFailed = std::streambuf::pos_type(std::streambuf::off_type(-1));

}  // namespace

ItemInputBuffer::ItemInputBuffer(Reader reader) : reader_(std::move(reader)), bytes_(kBufferSize) {}

ItemInputBuffer::int_type ItemInputBuffer::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  const std::size_t count = reader_.read(std::as_writable_bytes(std::span(bytes_)));
  setg(bytes_.data(), bytes_.data(), bytes_.data() + count);
  return count > 0 ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

std::streamsize ItemInputBuffer::xsgetn(char* to, std::streamsize count) {
  const std::span<char> wanted(to, static_cast<std::size_t>(std::max<std::streamsize>(count, 0)));
  const std::size_t ready = std::min(wanted.size(), buffered());
  std::copy_n(gptr(), ready, wanted.data());
  gbump(static_cast<int>(ready));
  std::size_t done = ready;
  // Until nothing more comes: what comes before a failure must not look like the item's end.
  while (done < wanted.size()) {
    const std::size_t got = reader_.read(std::as_writable_bytes(wanted.subspan(done)));
    if (got == 0) break;
    done += got;
    setg(bytes_.data(), bytes_.data(), bytes_.data());  // what it holds lies elsewhere now
  }
  return static_cast<std::streamsize>(done);
}

std::streamsize ItemInputBuffer::showmanyc() {
  const std::int64_t left = reader_.size() - reader_.position();
  return left > 0 ? left : -1;
}

ItemInputBuffer::pos_type ItemInputBuffer::seekoff(off_type offset, std::ios_base::seekdir from,
                                                   std::ios_base::openmode which) {
  const off_type size = reader_.size();
  const off_type position = reader_.position() - static_cast<off_type>(buffered());
  const off_type base = from == std::ios_base::beg   ? 0
                        : from == std::ios_base::cur ? position
                                                     : size;
  if ((which & std::ios_base::in) == 0) return kFailed;
  if (offset < -base || offset > size - base) return kFailed;
  const off_type target = base + offset;
  const off_type start = reader_.position() - (egptr() - eback());
  if (target >= start && target <= reader_.position()) {
    setg(eback(), eback() + (target - start), egptr());
  } else {
    setg(bytes_.data(), bytes_.data(), bytes_.data());
    reader_.seek(target);
  }
  return base + offset;
}

ItemInputBuffer::pos_type ItemInputBuffer::seekpos(pos_type position,
                                                   std::ios_base::openmode which) {
  return seekoff(position, std::ios_base::beg, which);
}

ItemOutputBuffer::ItemOutputBuffer(Writer writer)
    : writer_(std::move(writer)), bytes_(kBufferSize) {
  setp(bytes_.data(), bytes_.data() + bytes_.size());
}

ItemOutputBuffer::~ItemOutputBuffer() {
  if (!writer_.isOpen()) return;
  const std::shared_ptr<Opening> opening = writer_.opening();  // close lets go of it
  opening->engine().reportFailureOf(opening->path(), [this] { close(); });
}

void ItemInputBuffer::close() {
  setg(nullptr, nullptr, nullptr);
  reader_.close();
}

void ItemOutputBuffer::close() {
  const bool hasLost = failure_ != nullptr || pptr() != pbase();
  if (!writer_.isOpen() && !hasLost) return;
  if (failure_ == nullptr) {
    try {
      flush();
    } catch (...) {  // NOLINT(bugprone-empty-catch): put has kept it for below
    }
  }
  setp(nullptr, nullptr);
  writer_.close();
  if (failure_ != nullptr) std::rethrow_exception(std::exchange(failure_, nullptr));
}

ItemOutputBuffer::int_type ItemOutputBuffer::overflow(int_type character) {
  flush();
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(character);
    pbump(1);
  }
  return traits_type::not_eof(character);
}

std::streamsize ItemOutputBuffer::xsputn(const char* from, std::streamsize count) {
  const std::span<const char> bytes(from,
                                    static_cast<std::size_t>(std::max<std::streamsize>(count, 0)));
  const auto room = static_cast<std::size_t>(epptr() - pptr());
  if (bytes.size() > room) flush();
  if (bytes.size() >= bytes_.size()) {
    put(bytes);
  } else {
    std::copy(bytes.begin(), bytes.end(), pptr());
    pbump(static_cast<int>(bytes.size()));
  }
  return count;
}

int ItemOutputBuffer::sync() {
  flush();
  return 0;
}

ItemOutputBuffer::pos_type ItemOutputBuffer::seekoff(off_type offset, std::ios_base::seekdir from,
                                                     std::ios_base::openmode which) {
  const bool isAsked = offset == 0 && from == std::ios_base::cur;
  if (!isAsked || (which & std::ios_base::out) == 0) return kFailed;
  return writer_.position() + (pptr() - pbase());
}

void ItemOutputBuffer::flush() {
  put({pbase(), pptr()});
  setp(bytes_.data(), bytes_.data() + bytes_.size());
}

void ItemOutputBuffer::put(std::span<const char> bytes) {
  if (failure_ != nullptr) std::rethrow_exception(failure_);
  try {
    writer_.write(std::as_bytes(bytes));
  } catch (...) {
    failure_ = std::current_exception();
    setp(nullptr, nullptr);  // so that whatever follows comes here
    throw;
  }
}

ItemInputStream::ItemInputStream(Reader reader)
    : std::istream(nullptr), buffer_(std::make_unique<ItemInputBuffer>(std::move(reader))) {
  rdbuf(buffer_.get());
}

ItemInputStream::ItemInputStream(ItemInputStream&& other) noexcept
    : std::istream(nullptr), buffer_(std::move(other.buffer_)) {
  std::istream::swap(other);
  set_rdbuf(buffer_.get());
  other.set_rdbuf(nullptr);
}

ItemInputStream& ItemInputStream::operator=(ItemInputStream&& other) noexcept {
  ItemInputStream taken(std::move(other));
  std::istream::swap(taken);
  buffer_.swap(taken.buffer_);
  set_rdbuf(buffer_.get());
  return *this;
}

void ItemInputStream::close() {
  if (buffer_ != nullptr) buffer_->close();
}

ItemOutputStream::ItemOutputStream(Writer writer)
    : std::ostream(nullptr), buffer_(std::make_unique<ItemOutputBuffer>(std::move(writer))) {
  rdbuf(buffer_.get());
}

ItemOutputStream::ItemOutputStream(ItemOutputStream&& other) noexcept
    : std::ostream(nullptr), buffer_(std::move(other.buffer_)) {
  std::ostream::swap(other);
  set_rdbuf(buffer_.get());
  other.set_rdbuf(nullptr);
}

ItemOutputStream& ItemOutputStream::operator=(ItemOutputStream&& other) noexcept {
  ItemOutputStream taken(std::move(other));
  std::ostream::swap(taken);
  buffer_.swap(taken.buffer_);
  set_rdbuf(buffer_.get());
  return *this;
}

void ItemOutputStream::close() {
  if (buffer_ != nullptr) buffer_->close();
}

}  // namespace hxcrate
