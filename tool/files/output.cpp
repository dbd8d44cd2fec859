#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "interruption.h"
#include "tool/report/progress.h"
#include "tool/report/report.h"

namespace tool {

namespace {

constexpr std::size_t kBufferSize = 65536;

constexpr const char* kStoreColour = "\x1b[1;34m";  // as ls shows a directory
constexpr const char* kNoColour = "\x1b[0m";

bool wantsColour() {
  const char* refused = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return refused == nullptr || *refused == '\0';
}

}  // namespace

Output::Output(const std::string& colour)
    : isTerminal_(::isatty(STDOUT_FILENO) == 1),
      isColoured_(colour == "always" || (colour == "auto" && isTerminal_ && wantsColour())) {}

void Output::write(std::span<const std::byte> bytes) {
  if (buffer_.size() + bytes.size() > kBufferSize) finish();
  if (bytes.size() > kBufferSize) return send(bytes);
  buffer_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void Output::writeName(std::string_view name) {
  isTerminal_ ? write(escape(name)) : write(name);
}

void Output::writeStoreName(std::string_view shown) {
  if (isColoured_) write(kStoreColour);
  write(shown);
  if (isColoured_) write(kNoColour);
  write("/");
}

void Output::finish() {
  send(std::as_bytes(std::span(buffer_)));
  buffer_.clear();
}

void Output::send(std::span<const std::byte> bytes) {
  if (!bytes.empty()) Progress::erase();  // they may be one terminal
  while (!bytes.empty()) {
    const ssize_t sent = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (sent < 0 && errno == EINTR) continue;
    // Whoever reads it has seen enough, which is no failure.
    if (sent < 0 && errno == EPIPE) throw Interrupted(SIGPIPE);
    if (sent < 0) throw systemFailure("standard output", "write");
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
}

}  // namespace tool
