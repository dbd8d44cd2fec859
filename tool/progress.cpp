#include "progress.h"

#include <fmt/format.h>

#include <unistd.h>

#include <array>
#include <cmath>

namespace tool {

namespace {

using namespace std::chrono_literals;

constexpr auto kFirst = 400ms;
constexpr auto kEvery = 100ms;

std::size_t drawnLength = 0;  // of the line on the terminal

// A terminal that does not take the line goes without.
void send(const std::string& text) {
  [[maybe_unused]] const ssize_t sent = ::write(STDERR_FILENO, text.data(), text.size());
}

std::string describeTime(double seconds) {
  const long long whole = std::llround(std::ceil(seconds));
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

std::string describeBytes(std::int64_t bytes) {
  constexpr std::array kUnits = {"kB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 1000) return fmt::format("{} B", bytes);
  double amount = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (amount >= 999.95) {
    amount /= 1000;
    ++unit;
  }
  return fmt::format("{:.1f} {}", amount, kUnits.at(unit));
}

Progress::Progress(const char* action)
    : action_(action), isTerminal_(::isatty(STDERR_FILENO) == 1), due_(begun_ + kFirst) {}

void Progress::erase() {
  if (drawnLength == 0) return;
  send("\r" + std::string(drawnLength, ' ') + "\r");
  drawnLength = 0;
}

void Progress::drawWhenDue() {
  const Clock::time_point now = Clock::now();
  if (now < due_) return;
  due_ = now + kEvery;
  const std::string line = describe(std::chrono::duration<double>(now - begun_).count());
  erase();
  send(line);
  drawnLength = line.size();
}

std::string Progress::describe(double seconds) const {
  const double rate = static_cast<double>(done_) / seconds;
  std::string line = fmt::format("{}  {}", action_, describeBytes(done_));
  if (total_ > 0) {
    line += fmt::format(" of {}  {} %", describeBytes(total_), done_ * 100 / total_);
  }
  line += fmt::format("  {}/s", describeBytes(static_cast<std::int64_t>(rate)));
  if (total_ > done_ && rate > 0) {
    line += fmt::format("  {} left", describeTime(static_cast<double>(total_ - done_) / rate));
  }
  return line;
}

}  // namespace tool
