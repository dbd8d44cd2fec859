// Blobs: a store in memory as one buffer, byte for byte the file that it would be.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include "hxcrate/language.hpp"

namespace hxcrate {

// Owns the bytes of a blob, and gives them back to the memory pool that they came from; needs
// neither the session nor the store any longer. Movable; what was moved from is empty. Nothing
// changes the bytes, so any number of threads may read them.
class [[nodiscard]] Blob {
 public:
  Blob() = default;  // empty
  Blob(Blob&& other) noexcept
      : memory_(std::move(other.memory_)), bytes_(std::exchange(other.bytes_, {})) {}
  Blob& operator=(Blob&& other) noexcept {
    memory_ = std::move(other.memory_);
    bytes_ = std::exchange(other.bytes_, {});
    return *this;
  }

  // Write them to a file, send them anywhere. Valid as long as the blob, which needs a name.
  std::span<const std::byte> bytes() const& noexcept { return bytes_; }
  std::span<const std::byte> bytes() const&& = delete;

 private:
  friend class Session;
  friend class Store;
  Blob(std::shared_ptr<const void> memory, std::span<const std::byte> bytes)
      : memory_(std::move(memory)), bytes_(bytes) {}

  std::shared_ptr<const void> memory_;  // shared with the stores that were opened from it
  std::span<const std::byte> bytes_;
};

}  // namespace hxcrate
