// Gives the fuzzer's inputs to the function HX_FUZZED. Built with libFuzzer by `./dev fuzz`.
#include <gtest/gtest.h>

#include "tests/fuzzed.h"

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  GTEST_FLAG_SET(throw_on_failure, true);  // nobody catches it, so the fuzzer keeps the input
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  HX_FUZZED({data, size});
  return 0;
}
