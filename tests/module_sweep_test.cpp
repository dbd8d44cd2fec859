// Items in all sizes around the ends of pages, and sequences of operations that nobody thought of.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "tests/fuzzed.h"
#include "tests/module_world.h"
#include "tests/temporary_directory.h"

namespace hx::fake {
namespace {

std::string inPieces(const std::string& verb, int size, int piece) {
  std::string script;
  for (int at = 0; at < size; at += piece)
    script += verb + std::to_string(std::min(piece, size - at)) + ";";
  return script;
}

// Written in pieces, added to in a second session, read in pieces and by another instance.
TEST(Sweeps, SizesAroundPageBoundaries) {
  for (const int page : {1, 2, 7, 4096, 8192}) {
    for (const int size : {0, 1, page - 1, page, page + 1, 2 * page}) {
      for (const int piece : {1, 3, page, 5 * page}) {
        for (const std::string flags : {"", "N"}) {
          if (size / piece > 100) continue;
          World w;
          w.run("open x UC" + flags + "; pagesize x " + std::to_string(page) + "; item w x:a UC;" +
                inPieces("write w ", size, piece));
          EXPECT_EQ(w.handle("w")->page->index, size / page) << "never at a full page's end";
          w.run("shut w; close x; open x U" + flags +
                "; item w x:a U; write w 3; shut w; close x;"
                "open x R; item r x:a R;" +
                inPieces("read r ", size + 3, piece));
          // From the other machine two bytes are a number; a blob is read where it lies.
          w.run(flags.empty() ? "close x; foreign f x; open f R; item c f:a R;" +
                                    inPieces("convert c ", (size + 3) / 2, piece) + "tree f"
                              : "tree x; blob x B; load B R; tree B; item c B:a R;" +
                                    inPieces("read c ", size + 3, piece));
          w.settle();
        }
      }
    }
  }
}

TEST(Sweeps, RandomOperations) {
  std::mt19937 random;
  Bytes bytes(100);
  for (int sequence = 0; sequence < 300 && !HasFailure(); ++sequence) {
    SCOPED_TRACE(sequence);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    expectSoundLife(bytes);
  }
}

using Use = std::function<void(std::span<const uint8_t>)>;

void useText(const Use& use, const std::string& input) {
  EXPECT_NO_THROW(use({reinterpret_cast<const uint8_t*>(input.data()), input.size()}));
}

// What the fuzzers found, and some that they would try.
TEST(Sweeps, TheFuzzersCorpora) {
  const std::pair<const char*, Use> corpora[] = {{"image", expectAgreement},
                                                 {"operations", expectSoundLife},
                                                 {"unpack", hxtest::expectContainedUnpack},
                                                 {"commands", hxtest::expectBoundedCommands}};
  for (const auto& [corpus, use] : corpora) {
    const auto inputs = hxtest::readTree(std::string(HX_SOURCE_DIR "/tests/corpus/") + corpus);
    EXPECT_GE(inputs.size(), 8u) << "the corpus is missing: " << corpus;
    for (const auto& [name, input] : inputs) {
      SCOPED_TRACE(corpus + name);
      useText(use, input);
    }
  }
}

TEST(Sweeps, CommandsOnRandomDamage) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    useText(hxtest::expectBoundedCommands, hxtest::makeBytes(20 + seed * 3, seed));
  }
}

}  // namespace
}  // namespace hx::fake
