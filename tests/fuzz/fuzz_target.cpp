// Gives the fuzzer's inputs to the function HX_FUZZED. Built with libFuzzer by `./dev fuzz`.
#include <gtest/gtest.h>

#include <csignal>
#include <ctime>

#include "tests/fuzzed.h"

namespace {

constexpr std::time_t kSeconds = 60;  // for one input

// The fuzzer's own watch is the alarm, which interrupts a command as a person would.
timer_t makeWatch() {
  std::signal(SIGRTMIN, [](int) { std::abort(); });
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN;
  timer_t watch{};
  if (::timer_create(CLOCK_MONOTONIC, &event, &watch) != 0) std::abort();
  return watch;
}

void wind(timer_t watch, std::time_t seconds) {
  const itimerspec time{{}, {seconds, 0}};
  if (::timer_settime(watch, 0, &time, nullptr) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  GTEST_FLAG_SET(throw_on_failure, true);  // nobody catches it, so the fuzzer keeps the input
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const timer_t watch = makeWatch();
  wind(watch, kSeconds);
  HX_FUZZED({data, size});
  wind(watch, 0);
  return 0;
}
