// Signals that end the command, taken up where whatever it made for a while goes too.
#pragma once

#include <signal.h>

#include <array>
#include <exception>

namespace tool {

// Thrown at a safe place after a signal came. No catch but main's stops it.
class Interrupted : public std::exception {
 public:
  explicit Interrupted(int signal) : signal_(signal) {}
  const char* what() const noexcept override { return "interrupted"; }
  int signal() const noexcept { return signal_; }

 private:
  int signal_;
};

// As long as this lives, the first SIGINT, SIGTERM or SIGHUP only asks throwIfInterrupted to throw;
// a second one ends the process at once. A signal that is ignored stays ignored.
class InterruptionGuard {
 public:
  InterruptionGuard();
  ~InterruptionGuard();
  InterruptionGuard(const InterruptionGuard&) = delete;
  InterruptionGuard& operator=(const InterruptionGuard&) = delete;

 private:
  std::array<struct sigaction, 3> before_{};
};

void throwIfInterrupted();

// Ends the process as the signal would have.
[[noreturn]] void endBySignal(int signal);

}  // namespace tool
