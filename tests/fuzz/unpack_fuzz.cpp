// Unpacks any bytes as a store file. Built with libFuzzer by `./dev fuzz`.
#include "tests/fuzzed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  hxtest::expectContainedUnpack({data, size});  // nobody catches it, so the fuzzer keeps the input
  return 0;
}
