#include "interruption.h"

#include <unistd.h>

namespace tool {

namespace {

constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr int kKilledBySignal = 128;

volatile sig_atomic_t lastSignal = 0;

extern "C" void noteSignal(int signal) {
  lastSignal = signal;
}

}  // namespace

InterruptionGuard::InterruptionGuard() {
  struct sigaction action {};
  action.sa_handler = noteSignal;
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    ::sigaction(kSignals[i], &action, &before_[i]);
    if (before_[i].sa_handler == SIG_IGN) ::sigaction(kSignals[i], &before_[i], nullptr);
  }
}

InterruptionGuard::~InterruptionGuard() {
  for (std::size_t i = 0; i < kSignals.size(); ++i)
    ::sigaction(kSignals[i], &before_[i], nullptr);
}

void throwIfInterrupted() {
  if (lastSignal != 0) throw Interrupted(lastSignal);
}

void endBySignal(int signal) {
  ::signal(signal, SIG_DFL);
  ::raise(signal);
  ::_exit(kKilledBySignal + signal);  // it is blocked
}

}  // namespace tool
