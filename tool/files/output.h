// Standard output: data only, and every byte accounted for.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

// Buffers what is written. Every failure ends the command, so `finish` has to be called.
class Output {
 public:
  // In colours on a terminal, if the user has not set NO_COLOR ("auto"), "always" or "never".
  explicit Output(const std::string& colour = "auto");

  void write(std::span<const std::byte> bytes);
  void write(std::string_view text) { write(std::as_bytes(std::span(text))); }

  // Formatted as by fmt::format.
  template <typename... Values>
  void print(fmt::format_string<Values...> pattern, Values&&... values) {
    write(fmt::format(pattern, std::forward<Values>(values)...));
  }

  // A name alone: as it is for a program, escaped for a terminal. Beside other words names are
  // always escaped: one with a new line in it would look like a line of the command's own.
  void writeName(std::string_view name);

  // What is shown of the name of a store, with a slash behind it.
  void writeStoreName(std::string_view shown);

  bool isTerminal() const { return isTerminal_; }
  bool isColoured() const { return isColoured_; }

  void finish();

 private:
  static void send(std::span<const std::byte> bytes);

  std::string buffer_;
  bool isTerminal_;
  bool isColoured_;
};

}  // namespace tool
