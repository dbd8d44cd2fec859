#include "report.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tool {

namespace {

// The length of the printable character that `text` begins with; 0: none does. Strict UTF-8, less
// the control characters U+0000 to U+001F and U+007F to U+009F and the backslash.
std::size_t measurePrintable(std::string_view text) {
  const auto byteAt = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const auto follows = [&](std::size_t i) { return (byteAt(i) & 0xc0) == 0x80; };
  const unsigned lead = byteAt(0);
  const unsigned second = byteAt(1);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7f && lead != '\\' ? 1 : 0;
  if (!follows(1)) return 0;
  if (lead == 0xc2) return second >= 0xa0 ? 2 : 0;
  if (lead >= 0xc3 && lead <= 0xdf) return 2;
  if (!follows(2)) return 0;
  const bool overlongOrSurrogate =
      (lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f);
  if (lead >= 0xe0 && lead <= 0xef) return overlongOrSurrogate ? 0 : 3;
  if (!follows(3)) return 0;
  const bool outOfRange = (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f);
  return lead >= 0xf0 && lead <= 0xf4 && !outOfRange ? 4 : 0;
}

void appendOctal(std::string& text, unsigned char byte) {
  text += '\\';
  for (const int shift : {6, 3, 0})
    text += static_cast<char>('0' + (byte >> shift & 7));
}

}  // namespace

ExitCode worse(ExitCode a, ExitCode b) {
  constexpr std::array kRising = {ExitCode::fine,        ExitCode::partial,     ExitCode::damaged,
                                  ExitCode::notOpenable, ExitCode::inputOutput, ExitCode::usage};
  const auto rank = [&](ExitCode code) { return std::find(kRising.begin(), kRising.end(), code); };
  return rank(a) < rank(b) ? b : a;
}

Failure::Failure(ExitCode code, std::string file, std::string place, std::string reason)
    : code_(code), file_(std::move(file)), place_(std::move(place)), reason_(std::move(reason)) {}

void Failure::print() const {
  complain(file_, place_, reason_);
}

std::string systemReason() {
  return std::generic_category().message(errno);
}

Failure systemFailure(const std::string& file, std::string_view action) {
  const std::string reason = std::string(action) + ": " + systemReason();
  return {ExitCode::inputOutput, file, "", reason};
}

ExitCode exitCodeOf(const hxcrate::Error& error) {
  switch (error.errc()) {
    case hxcrate::Errc::damaged:
      return error.fileFailure() != nullptr ? ExitCode::inputOutput : ExitCode::damaged;
    case hxcrate::Errc::fileFailed:
    case hxcrate::Errc::noMemory:
    case hxcrate::Errc::itemFull:
      return ExitCode::inputOutput;
    default:
      return ExitCode::notOpenable;
  }
}

// A line that can't be written has nobody left to be told.
void complain(std::string_view file, std::string_view place, std::string_view reason) {
  std::string line = "hxcrate: ";
  for (const std::string_view part : {file, place}) {
    if (!part.empty()) line += escape(part) + ": ";
  }
  line += escape(reason) + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void complain(const hxcrate::Error& error) {
  complain(error.store(), error.member(), error.reason());
}

std::string escape(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const std::size_t length = measurePrintable(bytes);
    if (length == 0) {
      appendOctal(text, static_cast<unsigned char>(bytes.front()));
    } else {
      text += bytes.substr(0, length);
    }
    bytes.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return text;
}

}  // namespace tool
