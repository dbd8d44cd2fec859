// The fuzzer's corpus, replayed by the ordinary tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/image_agreement.h"

namespace {

TEST(ImageCorpus, FileAndBlobAgreeOnEveryInput) {
  int inputs = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(HX_SOURCE_DIR "/tests/corpus/image")) {
    SCOPED_TRACE(entry.path());
    std::ifstream stream(entry.path(), std::ios::binary);
    const std::vector<char> image{std::istreambuf_iterator<char>(stream), {}};
    hx::fake::expectAgreement({reinterpret_cast<const uint8_t*>(image.data()), image.size()});
    ++inputs;
  }
  EXPECT_GE(inputs, 8) << "the corpus is missing";
}

}  // namespace
