#include "interruption.h"

#include <unistd.h>

namespace tool {

namespace {

constexpr int kKilledBySignal = 128;

volatile sig_atomic_t lastSignal = 0;

extern "C" void noteSignal(int signal) {
  lastSignal = signal;
}

}  // namespace

InterruptionGuard::InterruptionGuard() {
  struct sigaction action {};
  action.sa_handler = noteSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (std::size_t i = 0; i < kEndingSignals.size(); ++i) {
    ::sigaction(kEndingSignals[i], &action, &before_[i]);
    if (before_[i].sa_handler == SIG_IGN) ::sigaction(kEndingSignals[i], &before_[i], nullptr);
  }
}

// On the way out by an exception whoever catches it looks for a signal.
InterruptionGuard::~InterruptionGuard() {
  for (std::size_t i = 0; i < kEndingSignals.size(); ++i)
    ::sigaction(kEndingSignals[i], &before_[i], nullptr);
  if (lastSignal == 0 || std::uncaught_exceptions() > 0) return;
  const int signal = lastSignal;
  lastSignal = 0;
  ::raise(signal);  // a guard around this one notes it again
}

int pendingSignal() {
  return lastSignal;
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
