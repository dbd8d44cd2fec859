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

// All that end a process and can be taken up, but for those of its own faults.
constexpr std::array kEndingSignals = {SIGINT,  SIGTERM, SIGHUP,  SIGQUIT,   SIGALRM,
                                       SIGXCPU, SIGUSR1, SIGUSR2, SIGVTALRM, SIGPROF,
                                       SIGPIPE, SIGIO,   SIGPWR,  SIGXFSZ,   SIGSTKFLT};

// As long as this lives, the first of those signals only asks throwIfInterrupted to throw; a second
// one of its kind ends the process at once. A signal that is ignored stays ignored. One that came
// and that nothing was interrupted for is obeyed when this goes.
class InterruptionGuard {
 public:
  InterruptionGuard();
  ~InterruptionGuard();
  InterruptionGuard(const InterruptionGuard&) = delete;
  InterruptionGuard& operator=(const InterruptionGuard&) = delete;

 private:
  std::array<struct sigaction, kEndingSignals.size()> before_{};
};

// The signal that came; 0: none.
int pendingSignal();
void throwIfInterrupted();

// Ends the process as the signal would have.
[[noreturn]] void endBySignal(int signal);

}  // namespace tool
