// The Linux host's pools, locks, extensions by name and encodings.
#include "host/linux/linux_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "host/encoding.h"
#include "host/linux/conversion.h"
#include "host/linux/system_memory.h"

namespace {

using namespace std::string_literals;
using Bytes = std::vector<uint8_t>;

class LinuxPoolTest : public testing::Test {
 protected:
  void* take(uint64_t size) { return pool_->allocate(pool_, size, hx::HX_ALLOCATE_ZEROED); }
  void giveBack(void* block) { pool_->free(pool_, block); }

  void TearDown() override {
    pool_->head.destroy(pool_);
    EXPECT_EQ(host_.poolUse().bytes, 0u);
    EXPECT_EQ(host_.poolUse().blocks, 0u);
  }

  hxhost::LinuxHost host_;
  hx::Pool* pool_ = host_.handle()->createPool(host_.handle(), nullptr, 0, "Pool");
};

TEST_F(LinuxPoolTest, BlocksOfEverySizeAreAlignedZeroAndApart) {
  std::vector<std::pair<uint8_t*, size_t>> blocks;
  for (const size_t size : std::initializer_list<size_t>{
           0,    1,    8,    9,    24,   60,    136,    800,    1016,   1023,    1024,
           1025, 1152, 1153, 4096, 4097, 65536, 262143, 262144, 262145, 1 << 20, 5 << 20}) {
    for (int round = 0; round < 3; ++round) {
      auto* block = static_cast<uint8_t*>(take(size));
      ASSERT_NE(block, nullptr) << size;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u) << size;
      EXPECT_EQ(std::count(block, block + size, 0), static_cast<ptrdiff_t>(size)) << size;
      std::memset(block, static_cast<int>(blocks.size() + 1), size);
      if (round == 1) {
        giveBack(block);  // the third round finds used memory
      } else {
        blocks.emplace_back(block, size);
      }
    }
  }
  for (const auto& [block, size] : blocks) {
    EXPECT_EQ(std::count(block, block + size, size > 0 ? block[0] : 0),
              static_cast<ptrdiff_t>(size));
  }
}  // what is still in use goes with the pool

TEST_F(LinuxPoolTest, UseIsCountedOverAllPoolsAndTooMuchIsRefused) {
  const uint64_t largest = std::numeric_limits<uint64_t>::max();
  for (const uint64_t size : {largest, largest - 7, largest - 31, largest / 2, uint64_t{1} << 60})
    EXPECT_EQ(take(size), nullptr) << size;
  hx::Pool* other = host_.handle()->createPool(host_.handle(), nullptr, 0, "Pool");
  void* small = take(100);
  ASSERT_NE(other->allocate(other, 1 << 20, hx::HX_ALLOCATE_ZEROED), nullptr);
  EXPECT_EQ(host_.poolUse().blocks, 2u);
  giveBack(small);
  EXPECT_EQ(host_.poolUse().bytes, 1u << 20);
  other->head.destroy(other);
  EXPECT_EQ(host_.poolUse().bytes, 0u);
  EXPECT_EQ(host_.poolUse().peakBytes, (1u << 20) + 100);
}

TEST_F(LinuxPoolTest, RecordsLieCloseAndFreedOnesAreUsedAgain) {
  if (hxhost::kUnderAddressSanitizer) GTEST_SKIP() << "blocks come from the sanitizer there";
  std::vector<uintptr_t> places;
  for (int i = 0; i < 5000; ++i)
    places.push_back(reinterpret_cast<uintptr_t>(take(136)));
  int neighbours = 0;  // all but the last of each chunk
  for (size_t i = 1; i < places.size(); ++i)
    neighbours += places[i] - places[i - 1] <= 150 ? 1 : 0;
  EXPECT_GE(neighbours, 5000 - 8);
  giveBack(reinterpret_cast<void*>(places[77]));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(take(130)), places[77]);
}

// Each thread marks what it holds, and all count under one lock.
TEST_F(LinuxPoolTest, ThreadsShareNoBlockAndALockExcludesThem) {
  hx::Lock* lock = host_.handle()->createLock(host_.handle(), nullptr, 0, "HXCRATE");
  int count = 0;
  int damaged = 0;
  const auto work = [&](uint8_t id) {
    std::array<uint8_t*, 16> held{};
    for (size_t i = 0; i < 8000; ++i) {
      uint8_t*& block = held[i * 7 % held.size()];
      const bool isSpoilt = block != nullptr && (block[0] != id || block[59] != id);
      if (block != nullptr) giveBack(block);
      block = static_cast<uint8_t*>(take(i % 500 == 0 ? 300000 : 60 + i % 3 * 2000));
      const bool isDirty = block[0] != 0 || block[59] != 0;
      block[0] = block[59] = id;
      lock->acquire(lock, 1, 1);
      damaged += isSpoilt || isDirty;
      ++count;
      lock->release(lock);
    }
  };
  std::thread other(work, uint8_t{1});
  work(2);
  other.join();
  EXPECT_EQ(count, 16000);
  EXPECT_EQ(damaged, 0);
  lock->head.destroy(lock);
}

class LinuxEncodingTest : public testing::Test {
 protected:
  static Bytes identity(const std::string& text) {
    Bytes id(text.begin(), text.end());
    id.resize(hx::HX_ENCODING_ID_LENGTH);
    return id;
  }

  hx::Converter* converter(const Bytes& from, const Bytes& to) {
    return encoding_->makeConverter(encoding_, 0, from.data(), to.data());
  }

  // The output is exactly as long as the record, so that a sanitizer sees a step beyond.
  static std::string convertedBy(hx::Converter* by, const void* map, const std::string& record) {
    std::string out(record.size(), '?');
    by->convertRecord(by, map, record.data(), std::ssize(record), out.data(), std::ssize(out));
    return out;
  }

  void TearDown() override {
    swapping_->release(swapping_);
    copying_->release(copying_);
    encoding_->head.destroy(encoding_);
  }

  const Bytes little_ = identity("hxmok1/le/utf-8");
  const Bytes big_ = identity("hxmok1/be/utf-8");
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
  Bytes id(hx::HX_ENCODING_ID_LENGTH, 0xff);
  EXPECT_EQ(encoding_->fillEncodingId(encoding_, id.data(), 24, 0, 0), 0);
  EXPECT_EQ(id, little_);
  Bytes trailing = little_;
  trailing.back() = 1;
  for (const Bytes& unknown : {Bytes(24), identity("hxmok1/le/ascii"), identity("hxmok1/le/utf-88"),
                               identity("hxmok2/le/utf-8"), trailing}) {
    EXPECT_EQ(converter(unknown, little_), nullptr);
    EXPECT_EQ(converter(big_, unknown), nullptr);
  }
  EXPECT_EQ(encoding_->makeConverter(encoding_, 0, nullptr, little_.data()), nullptr);
}

TEST_F(LinuxEncodingTest, RecordsTurnFieldByFieldAndOnlyWhenTheMapFits) {
  const std::string text = "abcdefghijklmnop";
  const struct {
    const char* name;
    std::string fields;   // of the map, in its middle
    std::string swapped;  // the text itself where the map does not fit
  } cases[] = {{"integers", "\1\0\0\x19\2\0\0\x1b"s, "hgfedcbalkjiponm"},
               {"characters", "\x8\0\x40\6\1\0\0\x19"s, "abcdefghponmlkji"},
               {"none", "", text},
               {"too short", "\1\0\0\x19"s, text},
               {"too long", "\xff\0\0\x19"s, text},
               {"terminated early", "\2\0\0\x19\0\0\0\0"s, text},
               {"empty field", "\0\0\0\x19\2\0\0\x19"s, text},
               {"unknown type", "\1\0\0\x19\1\0\0\x77"s, text},
               {"begins twice", "\0\0\0\x9\2\0\0\x19"s, text}};
  for (const auto& c : cases) {
    const std::string map = "\0\0\0\x9"s + c.fields + "\0\0\0\xa\0\0\0\0"s;
    EXPECT_EQ(convertedBy(swapping_, map.data(), text), c.swapped) << c.name;
    EXPECT_EQ(convertedBy(copying_, map.data(), text), text) << c.name;
  }
  const Bytes endless = {0, 0, 0, 9, 2, 0, 0, 0x19, 1, 0, 0, 0x19};
  EXPECT_EQ(convertedBy(swapping_, endless.data(), text), text);
  EXPECT_EQ(convertedBy(swapping_, nullptr, text), text);
  char out[] = "????";
  EXPECT_NE(copying_->convertRecord(copying_, nullptr, text.data(), 16, out, 4), 0);
  EXPECT_STREQ(out, "abcd");
  EXPECT_NE(swapping_->convertRecord(swapping_, nullptr, text.data(), -1, out, 4), 0);
}

TEST_F(LinuxEncodingTest, ItemBytesTurnAsTheArgumentSays) {
  const struct {
    int32_t kind;
    int64_t wanted;
    uint32_t measured;
    std::string stored;
    std::string delivered;  // empty: refused
  } cases[] = {{hx::HX_CONVERT_TEXT, 7, 7, "abcdefg", "abcdefg"},
               {hx::HX_CONVERT_ELEMENTS2, 7, 6, "abcdefg", "badcfeg"},
               {hx::HX_CONVERT_ELEMENTS4, -4, 0, "abcdefgh", "dcbahgfe"},
               {hx::HX_CONVERT_ELEMENTS8, 23, 16, "abcdefghijk", "hgfedcbaijk"},
               {hx::HX_CONVERT_ELEMENTS8, 7, 0, "abc", "abc"},
               {hx::HX_CONVERT_ELEMENTS4, int64_t{1} << 40, 0xfffffffc, "abcd", "dcba"},
               {0, 8, 0, "abcd", ""},
               {-8, 8, 0, "abcd", ""}};
  for (const auto& c : cases) {
    hx::ItemConversion argument{c.kind, 0};
    EXPECT_EQ(swapping_->measure(swapping_, &argument, nullptr, c.wanted), c.measured) << c.kind;
    const int64_t length = std::ssize(c.stored);
    std::string out(c.stored.size(), '?');
    const void* stored = c.stored.data();
    uint32_t count = 99;
    const int32_t result = swapping_->convert(swapping_, &argument, stored, length, out.data(),
                                              length, &stored, &count);
    EXPECT_EQ(result == 0, !c.delivered.empty()) << c.kind;
    EXPECT_EQ(out.substr(0, count), c.delivered) << c.kind;
  }
  hx::ItemConversion text{hx::HX_CONVERT_TEXT, 0};
  char out[] = "????";
  uint32_t count = 99;
  EXPECT_NE(swapping_->convert(swapping_, &text, "abcd", 4, out, 3, nullptr, &count), 0);
  EXPECT_NE(swapping_->convert(swapping_, nullptr, "abcd", 4, out, 4, nullptr, &count), 0);
  EXPECT_EQ(swapping_->measure(swapping_, nullptr, out, 4), 0u);
  EXPECT_EQ(count, 0u);
  EXPECT_STREQ(out, "????");
}

}  // namespace
