// Any bytes, opened as a file and as a blob: both must say the same of what can be read, and must
// end after work in proportion to the bytes. What the fuzzer runs, and what replays its corpus.
#pragma once

#include <cstdint>
#include <span>

namespace hx::fake {

// Every disagreement and every excess of work is a test failure.
void expectAgreement(std::span<const uint8_t> image);

}  // namespace hx::fake
