// Any bytes as a sequence of operations: what the fuzzer runs, and what replays its corpus.
#pragma once

#include <cstdint>
#include <span>

namespace hx::fake {

// Runs the operations on a store in a file, on one in memory and on one that is closed and loaded
// anew between them, which must agree in every status and count; then on files, memory and blobs
// with the failures that the bytes ask for, after which every file must hold what was written.
void expectSoundLife(std::span<const uint8_t> bytes);

}  // namespace hx::fake
