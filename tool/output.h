// Standard output: data only, and every byte accounted for.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace tool {

// Buffers what is written. Every failure ends the command, so `finish` has to be called.
class Output {
 public:
  Output();

  void write(std::span<const std::byte> bytes);
  void write(std::string_view text) { write(std::as_bytes(std::span(text))); }

  // A name: as it is for a program, escaped for a terminal.
  void writeName(std::string_view name);

  bool isTerminal() const { return isTerminal_; }

  void finish();

 private:
  static void send(std::span<const std::byte> bytes);

  std::string buffer_;
  bool isTerminal_;
};

}  // namespace tool
