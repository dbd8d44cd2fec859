// How far a long transfer is: one line on the terminal that standard error is, erased at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tool/files/interruption.h"

namespace tool {

// A number of bytes for people: "999 B", "1.2 MB".
std::string describeBytes(std::int64_t bytes);

// At most one at a time. Shows nothing where standard error is no terminal, and nothing of what is
// over within a moment.
class Progress {
 public:
  // `action` as "packing". `isWanted`: false where the terminal shows what is printed meanwhile.
  explicit Progress(const char* action, bool isWanted = true);
  ~Progress() { erase(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool isShown() const { return isTerminal_; }
  // How many bytes, in how many files or items, there are in all; unknown unless told.
  void expect(std::int64_t bytes, std::int64_t files = kUnknown) { total_ = {bytes, files}; }
  void add(std::int64_t bytes) {
    done_.bytes += bytes;
    if (isTerminal_) drawWhenDue();
  }
  // One is through.
  void addFile() {
    ++done_.files;
    if (isTerminal_) drawWhenDue();
  }

  // Takes the line away, whoever drew it, before something else is printed.
  static void erase();

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr std::int64_t kUnknown = -1;

  struct Amount {
    std::int64_t bytes = 0;
    std::int64_t files = 0;

    // What it costs, in bytes.
    double work() const;
  };

  void drawWhenDue();
  std::string describe(double seconds) const;
  std::string describeRest(double seconds) const;

  const InterruptionGuard guard_;  // so that the line goes
  const char* action_;
  bool isTerminal_;
  Amount total_ = {kUnknown, kUnknown};
  Amount done_;
  Clock::time_point begun_ = Clock::now();
  Clock::time_point due_;
};

}  // namespace tool
