// An open file, for the engines that are plain system calls.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "bench/engine.h"

namespace bench {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  FileDescriptor(const std::string& path, int flags)
      : number_(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
    if (number_ < 0) throw std::system_error(errno, std::system_category(), "open " + path);
  }
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~FileDescriptor() {
    if (number_ >= 0) ::close(number_);
  }

  int number() const { return number_; }

  void write(Bytes bytes) const {
    const ssize_t count = ::write(number_, bytes.data(), bytes.size());
    require(count == static_cast<ssize_t>(bytes.size()), "a plain write fell short");
  }
  std::size_t read(std::span<std::byte> out) const {
    const ssize_t count = ::read(number_, out.data(), out.size());
    require(count >= 0, "a plain read failed");
    return static_cast<std::size_t>(count);
  }
  std::size_t readAt(std::span<std::byte> out, std::uint64_t offset) const {
    const ssize_t count = ::pread(number_, out.data(), out.size(), static_cast<off_t>(offset));
    require(count >= 0, "a plain read failed");
    return static_cast<std::size_t>(count);
  }
  void sync() const { require(::fsync(number_) == 0, "fsync failed"); }

 private:
  int number_ = -1;
};

}  // namespace bench
