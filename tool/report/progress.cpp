#include "progress.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace tool {

namespace {

using namespace std::chrono_literals;

constexpr auto kFirst = 400ms;
constexpr auto kEvery = 100ms;

std::size_t drawnLength = 0;  // of the line on the terminal

// What a small file costs, in bytes of large ones: measured were 3 KiB when packing and copying,
// and 63 KiB when unpacking, which creates it.
constexpr double kFileWork = 16 * 1024;

// One less than it has, for the cursor; no more than others do where it does not tell.
std::size_t widthOfTerminal() {
  winsize size{};
  const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return (isKnown ? size.ws_col : 80u) - 1;
}

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

double Progress::Amount::work() const {
  return static_cast<double>(bytes) +
         kFileWork * static_cast<double>(std::max<std::int64_t>(files, 0));
}

Progress::Progress(const char* action, bool isWanted)
    : action_(action),
      isTerminal_(isWanted && ::isatty(STDERR_FILENO) == 1),
      due_(begun_ + kFirst) {}

void Progress::erase() {
  if (drawnLength == 0) return;
  send("\r" + std::string(drawnLength, ' ') + "\r");
  drawnLength = 0;
}

void Progress::drawWhenDue() {
  const Clock::time_point now = Clock::now();
  if (now < due_) return;
  due_ = now + kEvery;
  std::string line = describe(std::chrono::duration<double>(now - begun_).count());
  line.resize(std::min(line.size(), widthOfTerminal()));
  erase();
  send(line);
  drawnLength = line.size();
}

// What matters most comes first: a narrow terminal shows no more.
std::string Progress::describe(double seconds) const {
  const bool isKnown = total_.bytes > 0 || total_.files > 0;
  std::string line = action_;
  if (isKnown) line += describeRest(seconds);
  line += fmt::format("  {}", describeBytes(done_.bytes));
  if (total_.bytes > 0) line += fmt::format(" of {}", describeBytes(total_.bytes));
  if (total_.files > 1) {
    line += fmt::format("  {} of {} files", done_.files, total_.files);
  } else if (done_.files > 1) {
    line += fmt::format("  {} files", done_.files);
  }
  const double rate = static_cast<double>(done_.bytes) / seconds;
  return line + fmt::format("  {}/s", describeBytes(static_cast<std::int64_t>(rate)));
}

std::string Progress::describeRest(double seconds) const {
  const Amount done = {done_.bytes, total_.files < 0 ? 0 : done_.files};
  const double part = std::min(done.work() / total_.work(), 1.0);
  std::string text = fmt::format("  {} %", static_cast<int>(part * 100));
  if (part > 0 && part < 1)
    text += fmt::format("  {} left", describeTime(seconds / part - seconds));
  return text;
}

}  // namespace tool
