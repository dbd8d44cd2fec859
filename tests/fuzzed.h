// What the fuzzer runs, and what replays its corpus. Every disagreement is a test failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace hx::fake {

// Any bytes, opened as a file and as a blob: both must say the same of what can be read, and must
// end after work in proportion to the bytes.
void expectAgreement(std::span<const uint8_t> image);

// Any bytes as a sequence of operations. Runs them on a store in a file, on one in memory and on
// one that is closed and loaded anew between them, which must agree in every status and count; then
// on files, memory and blobs with the failures that the bytes ask for, after which every file must
// hold what was written.
void expectSoundLife(std::span<const uint8_t> bytes);

}  // namespace hx::fake

namespace hxtest {

// Unpacks any bytes as a store file into a fresh directory with links in it, and throws
// std::logic_error unless that ends with a documented exit code, within its quotas, and has touched
// nothing but that directory. Returns how many entries it made.
std::size_t expectContainedUnpack(std::span<const uint8_t> image);

// Makes a store file of any bytes, by way of a sound one of which fields of records are set to
// nasty values and links to each other's records, and at times a journal beside it; and has every
// command work on it. Throws std::logic_error unless each ends with a documented exit code, after
// little time, with little memory and with no more bytes written than the file could hold.
void expectBoundedCommands(std::span<const uint8_t> bytes);

// Runs the command in this process; what it says goes nowhere. Its exit code.
int runSilently(std::vector<std::string> words);

}  // namespace hxtest
