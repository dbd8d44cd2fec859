#include "progress.h"

#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdio>

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
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%lld:%02lld", whole / 60, whole % 60);
  return text.data();
}

}  // namespace

std::string describeBytes(std::int64_t bytes) {
  constexpr std::array kUnits = {"kB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 1000) return std::to_string(bytes) + " B";
  double amount = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (amount >= 999.95) {
    amount /= 1000;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", amount, kUnits.at(unit));
  return text.data();
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
  std::string line = std::string(action_) + "  " + describeBytes(done_);
  if (total_ > 0) {
    line += " of " + describeBytes(total_) + "  " + std::to_string(done_ * 100 / total_) + " %";
  }
  line += "  " + describeBytes(static_cast<std::int64_t>(rate)) + "/s";
  if (total_ > done_ && rate > 0) {
    line += "  " + describeTime(static_cast<double>(total_ - done_) / rate) + " left";
  }
  return line;
}

}  // namespace tool
