#include "bench/engine.h"

namespace bench {

namespace {

constexpr std::size_t kStride = 4097;  // between the starts of two pieces
constexpr std::size_t kStarts = 256;   // the pieces repeat after as many

}  // namespace

// Bytes that no compression shortens, the same every time.
Pieces::Pieces(std::size_t size, std::size_t count)
    : size_(size), count_(count), bytes_(size + kStride * kStarts) {
  std::uint32_t state = 1;
  for (std::byte& byte : bytes_) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<std::byte>(state >> 24);
  }
}

Bytes Pieces::at(std::size_t index) const {
  return Bytes(bytes_).subspan(index % kStarts * kStride, size_);
}

void Writing::putPieces(std::string_view, const Pieces&) {
  throw Unsupported("writes no item in pieces");
}
void Writing::enter(std::string_view) {
  throw Unsupported("has no nested stores");
}
void Writing::leave() {
  throw Unsupported("has no nested stores");
}

std::size_t Reading::get(std::string_view, std::span<std::byte>) {
  throw Unsupported("reads no item by its name");
}
std::uint64_t Reading::getPieces(std::string_view, std::span<std::byte>, const Seen&) {
  throw Unsupported("reads no item in pieces");
}
std::unique_ptr<Anywhere> Reading::openAnywhere(std::string_view) {
  throw Unsupported("reads no item at any place");
}
std::uint64_t Reading::listSizes() {
  throw Unsupported("lists no sizes");
}
Tally Reading::enumerate() {
  throw Unsupported("names no members");
}
Tally Reading::walk(const Seen&) {
  throw Unsupported("has no nested stores");
}

std::unique_ptr<Writing> Session::update(const std::string&) {
  throw Unsupported("adds nothing to a file that exists");
}

std::unique_ptr<InMemory> Engine::createInMemory() {
  throw Unsupported("makes no image in memory");
}
std::unique_ptr<Reading> Engine::openImage(Bytes) {
  throw Unsupported("opens no image in memory");
}
Archiver Engine::archiver(const std::string&, const std::string&, const std::string&) const {
  throw Unsupported("has no command that packs a tree");
}

}  // namespace bench
