// How far a long transfer is: one line on the terminal that standard error is, erased at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "interruption.h"

namespace tool {

// A number of bytes for people: "999 B", "1.2 MB".
std::string describeBytes(std::int64_t bytes);

// At most one at a time. Shows nothing where standard error is no terminal, and nothing of what is
// over within a moment.
class Progress {
 public:
  // `action` as "packing".
  explicit Progress(const char* action);
  ~Progress() { erase(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool isShown() const { return isTerminal_; }
  // How many bytes there are in all; unknown unless told.
  void expect(std::int64_t total) { total_ = total; }
  void add(std::int64_t bytes) {
    done_ += bytes;
    if (isTerminal_) drawWhenDue();
  }

  // Takes the line away, whoever drew it, before something else is printed.
  static void erase();

 private:
  using Clock = std::chrono::steady_clock;

  void drawWhenDue();
  std::string describe(double seconds) const;

  const InterruptionGuard guard_;  // so that the line goes
  const char* action_;
  bool isTerminal_;
  std::int64_t total_ = -1;
  std::int64_t done_ = 0;
  Clock::time_point begun_ = Clock::now();
  Clock::time_point due_;
};

}  // namespace tool
