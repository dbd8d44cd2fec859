// Makes damaged stores of any bytes and has every command work on them. Built with libFuzzer by
// `./dev fuzz`.
#include "tests/fuzzed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  hxtest::expectBoundedCommands({data, size});  // nobody catches it, so the fuzzer keeps the input
  return 0;
}
