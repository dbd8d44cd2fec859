// Checksums of bytes.
#pragma once

#include <nettle/sha2.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tool {

// Takes bytes in any number of pieces.
class Sha256 {
 public:
  using Digest = std::array<std::uint8_t, SHA256_DIGEST_SIZE>;

  Sha256() { sha256_init(&context_); }

  void add(std::span<const std::byte> bytes) {
    sha256_update(&context_, bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
  }
  // Of all that was added; then begins anew.
  Digest finish() {
    Digest digest;
    sha256_digest(&context_, digest.size(), digest.data());
    return digest;
  }

 private:
  sha256_ctx context_;
};

// In 64 hexadecimal digits, lower case.
std::string toHex(const Sha256::Digest& digest);

}  // namespace tool
