// The Linux host's pools, extensions by name and encodings.
#include "host/linux/linux_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <span>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/encoding.h"
#include "host/linux/conversion.h"
#include "host/linux/system_memory.h"

namespace {

using namespace std::string_literals;

class LinuxPoolTest : public testing::Test {
 protected:
  std::span<uint8_t> take(uint64_t size) {
    void* const block = pool_->allocate(pool_, size, hx::HX_ALLOCATE_ZEROED);
    return {static_cast<uint8_t*>(block), block != nullptr ? size : 0};
  }
  void giveBack(std::span<uint8_t> block) { pool_->free(pool_, block.data()); }

  void TearDown() override {
    pool_->head.destroy(pool_);  // what is still in use goes with the pool
    EXPECT_EQ(host_.poolUse().bytes, 0u);
    EXPECT_EQ(host_.poolUse().blocks, 0u);
  }

  hxhost::LinuxHost host_;
  hx::Pool* pool_ = host_.handle()->createPool(host_.handle(), nullptr, 0, "Pool");
};

TEST_F(LinuxPoolTest, BlocksOfEverySizeAreAlignedZeroAndApart) {
  std::vector<std::span<uint8_t>> blocks;
  for (const size_t size : std::initializer_list<size_t>{
           0,    1,    8,    9,    24,   60,    136,    800,    1016,   1023,    1024,
           1025, 1152, 1153, 4096, 4097, 65536, 262143, 262144, 262145, 1 << 20, 5 << 20}) {
    for (const bool isKept : {true, false, true}) {  // the third is used memory
      const std::span<uint8_t> block = take(size);
      EXPECT_EQ(block.size(), size);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block.data()) % 16, 0u) << size;
      EXPECT_EQ(std::ranges::count(block, 0), std::ssize(block)) << size;
      std::ranges::fill(block, static_cast<uint8_t>(blocks.size() + 1));
      isKept ? blocks.push_back(block) : giveBack(block);
    }
  }
  for (size_t i = 0; i < blocks.size(); ++i)
    EXPECT_EQ(std::ranges::count(blocks[i], i + 1), std::ssize(blocks[i]));
}

TEST_F(LinuxPoolTest, UseIsCountedFreedBlocksAreUsedAgainAndTooMuchIsRefused) {
  for (const uint64_t size : {~0ull, ~0ull - 7, ~0ull - 31, ~0ull / 2, 1ull << 60})
    EXPECT_EQ(take(size).data(), nullptr) << size;
  const auto first = take(136);
  giveBack(first);
  const auto second = take(130);
  EXPECT_EQ(host_.poolUse().bytes, 130u);
  EXPECT_EQ(host_.poolUse().peakBytes, 136u);
  EXPECT_TRUE(second.data() == first.data() || hxhost::kUnderAddressSanitizer);
}

// Each thread marks what it holds.
TEST_F(LinuxPoolTest, ThreadsShareNoBlock) {
  std::atomic<int> damaged = 0;
  const auto work = [&](uint8_t id) {
    std::array<std::span<uint8_t>, 16> held{};
    for (size_t i = 0; i < 8000; ++i) {
      std::span<uint8_t>& block = held[i * 7 % held.size()];
      damaged += !block.empty() && (block.front() != id || block.back() != id);
      if (!block.empty()) giveBack(block);
      block = take(i % 500 == 0 ? 300000 : 60 + i % 3 * 2000);
      damaged += block.front() != 0 || block.back() != 0;
      block.front() = block.back() = id;
    }
  };
  std::thread other(work, uint8_t{1});
  work(2);
  other.join();
  EXPECT_EQ(damaged, 0);
}

class LinuxEncodingTest : public testing::Test {
 protected:
  static std::string identity(std::string text) {
    text.resize(hx::HX_ENCODING_ID_LENGTH);
    return text;
  }

  hx::Converter* converter(const std::string& from, const std::string& to) {
    return encoding_->makeConverter(encoding_, 0, from.data(), to.data());
  }

  // The output is exactly as long as the record, so that a sanitizer sees a step beyond.
  static std::string convertedBy(hx::Converter* by, const char* map, const std::string& record) {
    std::string out(record.size(), '?');
    by->convertRecord(by, map, record.data(), std::ssize(record), out.data(), std::ssize(out));
    return out;
  }

  void TearDown() override {
    swapping_->release(swapping_);
    copying_->release(copying_);
    encoding_->head.destroy(encoding_);
  }

  const std::string little_ = identity("hxmok1/le/utf-8");
  const std::string big_ = identity("hxmok1/be/utf-8");
  hxhost::LinuxHost host_;
  hx::Encoding* encoding_ =
      static_cast<hx::Encoding*>(host_.handle()->loadExtension(host_.handle(), U"hxmok", 5, 0));
  hx::Converter* swapping_ = converter(big_, little_);
  hx::Converter* copying_ = converter(little_, little_);
};

TEST_F(LinuxEncodingTest, WholeNamesAreLoadedAndKnownIdentitiesConvert) {
  hx::HostHandle* host = host_.handle();
  for (const std::u32string_view name : {U"hxfiO", U"hxmo", U"hxmok2", U""})
    EXPECT_EQ(host->loadExtension(host, name.data(), std::ssize(name), 0), nullptr);
  std::string id(25, '?');
  EXPECT_NE(encoding_->fillEncodingId(encoding_, id.data(), 25, 0, 0), 0);
  EXPECT_EQ(encoding_->fillEncodingId(encoding_, id.data(), 24, 0, 0), 0);
  EXPECT_EQ(id, little_ + '?');
  const std::vector<std::string> unknown = {"", "hxmok1/le/ascii", "hxmok1/le/utf-88",
                                            "hxmok2/le/utf-8"};
  for (const std::string& text : unknown) {
    EXPECT_EQ(converter(identity(text), little_), nullptr);
    EXPECT_EQ(converter(big_, identity(text)), nullptr);
  }
  EXPECT_EQ(encoding_->makeConverter(encoding_, 0, nullptr, little_.data()), nullptr);
}

TEST_F(LinuxEncodingTest, RecordsTurnFieldByFieldAndOnlyWhenTheMapFits) {
  const std::string text = "abcdefghijklmnop";
  const std::string begin = "\0\0\0\x9"s;
  const std::pair<std::string, std::string> cases[] = {
      {begin + "\1\0\0\x19\2\0\0\x1b"s, "hgfedcbalkjiponm"},
      {begin + "\x8\0\x40\6\1\0\0\x19"s, "abcdefghponmlkji"},
      {begin, text},
      {begin + "\1\0\0\x19"s, text},            // too short
      {begin + "\xff\0\0\x19"s, text},          // too long
      {begin + "\2\0\0\x19\0\0\0\0"s, text},    // another end
      {begin + "\0\0\0\x19\2\0\0\x19"s, text},  // an empty field
      {begin + "\1\0\0\x19\1\0\0\x77"s, text},  // an unknown type
      {begin + begin + "\2\0\0\x19"s, text},
      {"\1\0\0\x19\2\0\0\x19"s, text}};
  for (const auto& [fields, swapped] : cases) {
    const std::string map = fields + "\0\0\0\xa\0\0\0\0"s;
    EXPECT_EQ(convertedBy(swapping_, map.data(), text), swapped);
    EXPECT_EQ(convertedBy(copying_, map.data(), text), text);
  }
  const auto endless = std::to_array<char>({0, 0, 0, 9, 2, 0, 0, 0x19, 1, 0, 0, 0x19});
  EXPECT_EQ(convertedBy(swapping_, endless.data(), text), text);
  EXPECT_EQ(convertedBy(swapping_, nullptr, text), text);
  char out[] = "????";
  EXPECT_NE(copying_->convertRecord(copying_, nullptr, text.data(), 16, out, 4), 0);
  EXPECT_STREQ(out, "abcd");
  EXPECT_NE(copying_->convertRecord(copying_, nullptr, text.data(), -1, out, 4), 0);
}

TEST_F(LinuxEncodingTest, ItemBytesTurnAsTheArgumentSays) {
  // The argument; what is asked for, and what that measures; the bytes, and the room for them; what
  // is delivered, nothing when it is refused.
  const std::tuple<int32_t, int64_t, uint32_t, std::string, int64_t, std::string> cases[] = {
      {hx::HX_CONVERT_TEXT, 7, 7, "abcdefg", 7, "abcdefg"},
      {hx::HX_CONVERT_ELEMENTS2, 7, 6, "abcdefg", 7, "badcfeg"},
      {hx::HX_CONVERT_ELEMENTS4, -4, 0, "abcdefghij", 10, "dcbahgfeij"},
      {hx::HX_CONVERT_ELEMENTS8, 23, 16, "abcdefghijk", 11, "hgfedcbaijk"},
      {hx::HX_CONVERT_ELEMENTS4, int64_t{1} << 40, 0xfffffffc, "abcd", 4, "dcba"},
      {hx::HX_CONVERT_TEXT, 1, 1, "abcd", 3, ""},
      {-8, 8, 0, "abcd", 4, ""}};
  for (const auto& [kind, wanted, measured, stored, room, delivered] : cases) {
    hx::ItemConversion argument{kind, 0};
    EXPECT_EQ(swapping_->measure(swapping_, &argument, nullptr, wanted), measured) << kind;
    std::string out(stored.size(), '?');
    uint32_t count = 99;
    const int32_t result = swapping_->convert(
        swapping_, &argument, stored.data(), std::ssize(stored), out.data(), room, nullptr, &count);
    EXPECT_EQ(result == 0, !delivered.empty()) << kind;
    EXPECT_EQ(out.substr(0, count), delivered) << kind;
  }
  uint32_t count = 99;
  char out[] = "????";
  EXPECT_NE(swapping_->convert(swapping_, nullptr, "abcd", 4, out, 4, nullptr, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(swapping_->measure(swapping_, nullptr, out, 4), 0u);
}

}  // namespace
