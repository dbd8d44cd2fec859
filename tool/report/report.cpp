#include "report.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "progress.h"
#include "utf8.h"

namespace tool {

namespace {

// The length of the printable character that `text` begins with; 0: none does. The backslash is
// none.
std::size_t measurePrintable(std::string_view text) {
  const std::size_t length = measureCharacter(text);
  if (length == 0 || text[0] == '\\') return 0;
  return isControl(text, length) || isDeceptive(text, length) ? 0 : length;
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

Failure::Failure(ExitCode code, std::string file, std::string place, std::string reason, int error)
    : code_(code),
      file_(std::move(file)),
      place_(std::move(place)),
      reason_(std::move(reason)),
      error_(error) {}

bool Failure::isOfWholeDisk() const noexcept {
  return error_ == ENOSPC || error_ == EDQUOT || error_ == EROFS || error_ == EIO;
}

void Failure::print() const {
  complain(file_, place_, reason_);
}

std::string systemReason() {
  return std::generic_category().message(errno);
}

Failure systemFailure(const std::string& file, std::string_view action) {
  const int error = errno;
  return {ExitCode::inputOutput, file, "", std::string(action) + ": " + systemReason(), error};
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
  Progress::erase();
  std::string line = "hxcrate: ";
  const std::string shown = hxcrate::showPath(std::string(file));
  for (const std::string_view part : {std::string_view(shown), place}) {
    if (!part.empty()) line += escape(part) + ": ";
  }
  line += escape(reason) + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void complain(const hxcrate::Error& error) {
  complain(error.store(), error.member(), error.reason());
}

std::string countThings(std::int64_t number, std::string_view noun) {
  return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
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
