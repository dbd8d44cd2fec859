// The Linux host's files, on the real disk and on one that fails or falls short.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <optional>
#include <sstream>
#include <tuple>
#include <utility>

#include "host/file_io.h"
#include "host/linux/path_codec.h"
#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;
using Bytes = DiskBytes;

// An open file in the words of the tests. Closes what is still open.
class File {
 public:
  explicit File(hx::FileHandle* opened) : handle(opened) {}
  ~File() { close(); }
  File(const File&) = delete;

  void close() {
    if (handle != nullptr) handle->close(handle);
    handle = nullptr;
  }
  // The new position, or -1.
  int64_t seek(int64_t position, int32_t whence = hx::HX_SEEK_START) {
    return handle->seek(handle, &position, whence, 0) == 0 ? position : -1;
  }
  int64_t size() { return seek(0, hx::HX_SEEK_END); }
  bool write(const Bytes& bytes) {
    return handle->write(handle, bytes.data(), std::ssize(bytes), 0, 0, 0) == 0;
  }
  bool writeAt(int64_t position, const Bytes& bytes) {
    return seek(position) == position && write(bytes);
  }
  // Up to `count` bytes, in as many calls as it takes.
  Bytes read(int64_t count) {
    Bytes bytes(static_cast<size_t>(count));
    int64_t done = 0;
    for (hx::ReadRequest request{}; done < count; done += request.count) {
      request = {bytes.data() + done, count - done};
      if (handle->read(handle, &request, &request.count, 0, 0, 0) != 0) break;
    }
    bytes.resize(static_cast<size_t>(done));
    return bytes;
  }
  Bytes readAt(int64_t position, int64_t count) {
    return seek(position) == position ? read(count) : Bytes();
  }

  hx::FileHandle* handle;
};

std::u32string toPath(const fs::path& path) {
  return *hxhost::decodePath(path.native());
}

// A host's hxfio.
class Files {
 public:
  explicit Files(const hxhost::HostOptions& options = {}) : host(options) {}
  ~Files() { io_->head.destroy(io_); }

  hx::FileHandle* open(std::u32string_view path, int32_t mode = hx::HX_ACCESS_UPDATE) {
    hx::OpenParameters parameters{};
    parameters.accessMode = mode;
    return io_->open(io_, path.data(), std::ssize(path), &parameters, 0, 0, "hxfio", nullptr, 0);
  }
  int32_t remove(std::u32string_view path) {
    return io_->remove(io_, path.data(), std::ssize(path), 0, 0);
  }
  // The errno of the last failure, 0 when there is none. All are forgotten.
  int takeError() {
    int error = 0;
    while (const auto failure = host.takeFileFailure())
      error = failure->error;
    return error;
  }

  hxhost::LinuxHost host;

 private:
  hx::FileIo* io_ =
      static_cast<hx::FileIo*>(host.handle()->loadExtension(host.handle(), U"hxfio", 5, 0));
};

DiskImage diskWith(const Bytes& bytes) {
  return {{{kCrashFile, 1}}, {{1, bytes}}};
}

Bytes noise(size_t count, unsigned seed = 1) {
  const std::string bytes = makeBytes(count, seed);
  return {bytes.begin(), bytes.end()};
}

// Puts bytes where a file of any length would have them.
void putAt(Bytes& file, int64_t position, const Bytes& bytes) {
  const auto end = static_cast<size_t>(position) + bytes.size();
  if (!bytes.empty() && file.size() < end) file.resize(end);
  std::copy(bytes.begin(), bytes.end(), file.begin() + position);
}

// A file and what it must hold, moved through the same random steps.
class Model {
 public:
  Model(Files& files, unsigned seed) : files_(files), random_(seed) {}

  void step() {
    const int64_t position = below(std::min<int64_t>(size() + (below(4) == 0 ? 700 : 10), 20000));
    const int64_t count = below(8) == 0 ? below(3000) : below(120);
    if (below(50) == 0) file_.reset();
    if (!file_) file_.emplace(files_.open(kCrashStore));
    ASSERT_EQ(file_->seek(position), position);
    if (below(2) == 0) return write(position, count);
    const int64_t from = std::min(position, size());
    const int64_t to = std::min(position + count, size());
    ASSERT_EQ(file_->read(count), Bytes(bytes_.data() + from, bytes_.data() + to));
    ASSERT_EQ(file_->size(), size());
  }

  const Bytes& close() {
    file_.reset();
    return bytes_;
  }

 private:
  int64_t size() const { return std::ssize(bytes_); }
  int64_t below(int64_t bound) { return static_cast<int64_t>(random_()) % bound; }

  void write(int64_t position, int64_t count) {
    Bytes bytes(static_cast<size_t>(count));
    const int64_t values = below(2) == 0 ? 1 : 3;  // often what was there, zeros past the end too
    for (uint8_t& byte : bytes)
      byte = static_cast<uint8_t>(below(values));
    ASSERT_TRUE(file_->write(bytes));
    if (count > 0) putAt(bytes_, position, bytes);
  }

  Files& files_;
  std::mt19937 random_;
  std::optional<File> file_;
  Bytes bytes_;
};

TEST(LinuxCacheTest, HoldsWhatAModelHoldsUnderAnyCacheAndTransfers) {
  for (const int64_t cacheBytes : {0, 256, 1000, 4096, 65536}) {
    for (const bool fallsShort : {false, true}) {
      SCOPED_TRACE(cacheBytes);
      SimulatedDisk disk;
      disk.fallsShort = fallsShort;
      Files files(hostOver(disk, cacheBytes));
      Model model(files, static_cast<unsigned>(cacheBytes * 2 + fallsShort));
      for (int i = 0; i < 2000 && !testing::Test::HasFatalFailure(); ++i)
        model.step();
      const Bytes expected = model.close();
      ASSERT_EQ(disk.live().at(kCrashFile), expected);
      EXPECT_EQ(files.takeError(), 0);
    }
  }
}

TEST(LinuxCacheTest, SmallRecordsCostNoTransferEach) {
  SimulatedDisk disk;
  Files files(hostOver(disk, 1 << 20));
  int64_t transfers = 0;
  disk.watch = [&](const DiskStep& step) {
    transfers += step.operation == DiskOperation::kRead || step.operation == DiskOperation::kWrite;
  };
  for (const bool writes : {true, false}) {
    File file(files.open(kCrashStore));
    for (int64_t at = 40; at < 4'000'000; at += 4120)
      EXPECT_TRUE(writes ? file.writeAt(at, noise(4120)) : file.readAt(at, 24) == noise(24));
    file.close();
    EXPECT_LE(std::exchange(transfers, 0), 30);
  }
}

class LinuxFilesTest : public testing::Test {
 protected:
  const TemporaryDirectory folder_;
  const fs::path path_ = folder_ / "store";
  Files files_;
};

TEST_F(LinuxFilesTest, GivesTheResolvedPath) {
  fs::create_directory(folder_ / "data");
  fs::create_directory_symlink("data", folder_ / "link");
  const fs::path real = folder_.path() / "data" / u8"h\u00e9llo \U0001f4e6";
  const fs::path asked = folder_.path() / "link" / "." / real.filename();
  for (const int32_t mode : {hx::HX_ACCESS_UPDATE, hx::HX_ACCESS_READ}) {
    File file(files_.open(toPath(asked), mode));
    EXPECT_TRUE(mode == hx::HX_ACCESS_READ || file.write({1}));
    EXPECT_EQ(std::u32string(file.handle->path), toPath(real));
  }
}

TEST_F(LinuxFilesTest, OpensNothingButRegularFiles) {
  const fs::path latin = folder_ / "latin\xe9";
  fs::create_directory(latin);
  fs::create_directory_symlink(latin, folder_ / "dir");
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0666), 0);
  fs::create_symlink("fifo", folder_ / "link");
  fs::create_symlink("loop", folder_ / "loop");
  const std::u32string in = toPath(folder_.path()) + U"/";
  const std::pair<int, std::vector<std::u32string>> refused[] = {
      {EISDIR, {in, std::u32string(1023, U'/') + U"."}},
      {ENOTSUP, {in + U"fifo", in + U"link", U"/dev/null", U"/dev/tty"}},
      {ENOENT, {in + U"absent/x"}},
      {ELOOP, {in + U"loop"}},
      {EILSEQ, {in + U"dir/new"}},
      {ENAMETOOLONG, {std::u32string(1025, U'/'), in + std::u32string(300, U'x')}},
      {EINVAL, {U"", in + U'\0', in + char32_t{0xd800}, in + char32_t{0x110000}}}};
  for (const auto& [error, paths] : refused) {
    for (const std::u32string& path : paths) {
      EXPECT_EQ(files_.open(path), nullptr);
      EXPECT_EQ(files_.takeError(), error) << hxhost::describePath(path.data(), std::ssize(path));
    }
  }
  EXPECT_TRUE(fs::is_empty(latin));
  EXPECT_EQ(files_.open(toPath(path_), hx::HX_ACCESS_READ), nullptr);
  EXPECT_EQ(files_.takeError(), ENOENT);
  for (const int32_t mode : {0, 2, 4})
    EXPECT_EQ(files_.open(toPath(path_), mode), nullptr);
  EXPECT_EQ(files_.takeError(), EINVAL);
}

TEST_F(LinuxFilesTest, LeavesNoEmptyFileBehindButItsOwnOnly) {
  const auto open = [&](const fs::path& path) { return File(files_.open(toPath(path))); };
  EXPECT_NE(open(path_).handle, nullptr);
  EXPECT_FALSE(fs::exists(path_)) << "created and closed empty";
  {
    const File created(files_.open(toPath(path_)));
    fs::remove(path_);
    writeFile(path_, "");
  }
  EXPECT_TRUE(fs::exists(path_)) << "somebody else's";
  EXPECT_NE(open(path_).handle, nullptr);
  EXPECT_TRUE(fs::exists(path_)) << "was there before";
  fs::create_symlink(folder_ / "target", folder_ / "link");
  open(folder_ / "link").write({'7'});
  EXPECT_EQ(readFile(folder_ / "target"), "7");
}

TEST_F(LinuxFilesTest, RemovesRegularFilesOnly) {
  writeFile(path_, "1");
  fs::create_symlink(path_, folder_ / "link");
  const fs::path fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  EXPECT_EQ(files_.remove(toPath(fifo)), hx::HX_REMOVE_NOT_REGULAR);
  EXPECT_EQ(files_.remove(toPath(folder_.path())), hx::HX_REMOVE_NOT_REGULAR);
  EXPECT_TRUE(fs::exists(fifo));
  EXPECT_EQ(files_.remove(toPath(folder_ / "link")), 0);
  EXPECT_FALSE(fs::exists(path_)) << "where the data are";
  EXPECT_TRUE(fs::is_symlink(folder_ / "link"));
  for (const std::u32string& nothing :
       {toPath(path_), toPath(fifo) + U"/x", std::u32string(), std::u32string(1025, U'a')}) {
    EXPECT_GT(files_.remove(nothing), 0);
  }
}

TEST(LinuxDiskTest, TellsWhyItDoesNotRemove) {
  const std::pair<int, int32_t> codes[] = {
      {EACCES, hx::HX_REMOVE_NO_PERMISSION}, {EPERM, hx::HX_REMOVE_NO_PERMISSION},
      {EROFS, hx::HX_REMOVE_NO_PERMISSION},  {EBUSY, hx::HX_REMOVE_IN_USE},
      {ETXTBSY, hx::HX_REMOVE_IN_USE},       {EIO, hx::HX_REMOVE_IO_ERROR}};
  SimulatedDisk disk(diskWith({1}));
  Files files(hostOver(disk));
  for (const auto& [error, code] : codes) {
    for (disk.failure = error; const int64_t operation : {0, 1, 2}) {
      disk.failAt = operation;
      EXPECT_EQ(files.remove(kCrashStore), code) << error;
      EXPECT_EQ(files.takeError(), error);
    }
  }
  SimulatedDisk both({{{kCrashFile, 1}, {kCrashJournal, 2}}, {{1, {1}}, {2, {}}}});
  EXPECT_EQ(Files(hostOver(both)).remove(kCrashStore), 0);
  EXPECT_TRUE(both.live().names.empty()) << "the journal goes with its file";
  disk.failAt = -1;
  disk.hasBecomeDevice = true;
  EXPECT_EQ(files.open(kCrashStore), nullptr);
  EXPECT_EQ(files.takeError(), ENOTSUP);
}

TEST(LinuxDiskTest, RefusesSenselessCallsAndChangesNothing) {
  constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
  SimulatedDisk disk(diskWith({1, 2, 3, 4}));
  Files files(hostOver(disk));
  File file(files.open(kCrashStore));
  ASSERT_EQ(file.seek(1), 1);
  for (const int64_t position : {int64_t{-1}, -kLast - 1})
    EXPECT_EQ(file.seek(position), -1);
  for (const int64_t position : {int64_t{-5}, -kLast - 1, kLast, kLast - 3}) {
    EXPECT_EQ(file.seek(position, hx::HX_SEEK_END), -1) << position;
  }
  for (const int32_t whence : {-1, 1, 3})
    EXPECT_EQ(file.seek(0, whence), -1) << whence;
  hx::FileHandle* handle = file.handle;
  uint8_t byte = 0;
  for (hx::ReadRequest request : {hx::ReadRequest{&byte, 0}, {&byte, -1}, {nullptr, 1}}) {
    EXPECT_NE(handle->read(handle, &request, &request.count, 0, 0, 0), 0);
  }
  EXPECT_NE(handle->write(handle, &byte, -1, 0, 0, 0), 0);
  EXPECT_NE(handle->write(handle, nullptr, 1, 0, 0, 0), 0);
  EXPECT_EQ(file.read(9), (Bytes{2, 3, 4})) << "the position is what it was";
  EXPECT_EQ(files.takeError(), 0);
  EXPECT_FALSE(file.writeAt(kLast, {1}));
  EXPECT_EQ(files.takeError(), EFBIG) << "bytes were lost";
  EXPECT_EQ(file.size(), 4);
  file.close();
  File reader(files.open(kCrashStore, hx::HX_ACCESS_READ));
  EXPECT_FALSE(reader.write({9}));
  EXPECT_EQ(files.takeError(), EBADF);
  EXPECT_EQ(reader.readAt(0, 9), (Bytes{1, 2, 3, 4}));
}

// Updates that a fault ends, and what is left when the fault is gone.
class LinuxLossTest : public testing::TestWithParam<std::tuple<Bytes, int64_t>> {
 protected:
  // Overwrites blocks at random, then many at once, some of them again, and behind the end. What
  // the file must hold then.
  Bytes overwriteMuch(Files& files) {
    Bytes expected = before_;
    File file(files.open(kCrashStore));
    std::mt19937 random(5);
    for (unsigned i = 0; i < 20 && file.handle != nullptr; ++i) {
      const auto position = static_cast<int64_t>(i == 12 ? 2000 : random() % 45000);
      const Bytes bytes = noise(i == 12 ? 30000 : random() % 3000 + 1, i);
      file.writeAt(position, bytes);
      putAt(expected, position, bytes);
    }
    return expected;
  }

  void survive(SimulatedDisk& disk) {
    Files files(hostOver(disk, std::get<1>(GetParam())));
    const Bytes after = overwriteMuch(files);
    const auto failure = files.host.takeFileFailure();
    const bool isBack = failure && failure->rolledBack;
    EXPECT_TRUE(!isBack || disk.live().at(kCrashFile) == before_);
    EXPECT_FALSE(isBack && disk.live().has(kCrashJournal));
    rolledBack_ += isBack;
    SimulatedDisk repaired(disk.live());
    lookAt(repaired);
    const Bytes found = repaired.live().at(kCrashFile);
    EXPECT_TRUE(found == after || (failure && found == before_));
  }

  const Bytes before_ = std::get<0>(GetParam());
  const DiskImage image_ = before_.empty() ? DiskImage() : diskWith(before_);
  int rolledBack_ = 0;
};

INSTANTIATE_TEST_SUITE_P(OldAndNewFiles, LinuxLossTest,
                         testing::Combine(testing::Values(noise(40001), Bytes()),
                                          testing::Values(4096, 32768, 1 << 20)));

TEST_P(LinuxLossTest, AnErrorAtAnyOperationIsToldAndLeavesAllOrNothing) {
  for (const bool failsEverAfter : {false, true}) {
    bool isOver = false;
    for (int64_t failAt = 0; !isOver; ++failAt) {
      SCOPED_TRACE(failAt);
      SimulatedDisk disk(image_);
      disk.failAt = failAt;
      disk.failsEverAfter = failsEverAfter;
      disk.fallsShort = failAt % 2 == 1;
      survive(disk);
      isOver = !disk.hasFired;
    }
  }
  EXPECT_GE(rolledBack_, 10);
}

TEST_P(LinuxLossTest, ADiskThatFillsUpLeavesTheFileAsItWas) {
  for (int64_t room = 0; room < 100000; room += 997) {
    SCOPED_TRACE(room);
    SimulatedDisk disk(image_);
    disk.capacity = std::ssize(before_) + room;
    survive(disk);
  }
  EXPECT_GE(rolledBack_, 10);
}

TEST(LinuxDiskTest, NothingFollowsALostWriteOrAReadThatFailedInAnUpdate) {
  const Bytes before = noise(8192);
  for (const bool readFails : {false, true}) {
    SimulatedDisk disk(diskWith(before));
    Files files(hostOver(disk, 256));
    File file(files.open(kCrashStore));
    ASSERT_TRUE(file.write({99}));
    disk.capacity = 0;
    if (readFails) disk.failAt = 0;
    int64_t block = 64;
    while (block < 640 && (readFails ? !file.readAt(block, 64).empty() : file.writeAt(block, {1})))
      block += 64;
    EXPECT_LT(block, 640);
    disk.capacity = 1 << 20;
    EXPECT_FALSE(file.writeAt(5000, {1}));
    EXPECT_TRUE(file.readAt(0, 10).empty());
    disk.failAt = 0;  // the closing: a second failure, which does not hide the first
    file.close();
    const auto failure = files.host.takeFileFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->error, readFails ? EIO : ENOSPC);
    EXPECT_EQ(failure->operation, readFails ? "read" : "write");
    EXPECT_EQ(failure->path, kCrashFile);
    EXPECT_EQ(disk.live().at(kCrashFile), before);
  }
}

// An update that works, and two that fail when they already exclude others.
TEST(LinuxDiskTest, WhoReadOnSharesAgainAfterAnUpdate) {
  for (const int64_t failAt : {-1, 3, 4}) {
    SimulatedDisk disk(diskWith({1, 2, 3}));
    Files files(hostOver(disk));
    Files others(hostOver(disk));
    const File reader(files.open(kCrashStore, hx::HX_ACCESS_READ));
    disk.failAt = failAt;
    {
      const File updater(files.open(kCrashStore));
      EXPECT_EQ(updater.handle != nullptr, failAt < 0);
      EXPECT_TRUE(failAt >= 0 || files.open(kCrashStore, hx::HX_ACCESS_READ) == nullptr);
    }
    EXPECT_NE(File(others.open(kCrashStore, hx::HX_ACCESS_READ)).handle, nullptr) << failAt;
  }
}

TEST(LinuxDiskTest, ReadFailuresAreThoseOfBytesAskedFor) {
  const Bytes bytes = noise(40000);
  SimulatedDisk disk(diskWith(bytes));
  Files files(hostOver(disk));
  File file(files.open(kCrashStore, hx::HX_ACCESS_READ));
  disk.failAt = 0;
  EXPECT_EQ(file.read(900), Bytes(bytes.begin(), bytes.begin() + 900));
  EXPECT_EQ(files.takeError(), 0) << "nobody asked for what lies ahead";
  disk.failAt = 0;
  disk.failsEverAfter = true;
  EXPECT_TRUE(file.read(900).empty());
  const auto failure = files.host.takeFileFailure();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->operation, "read");
  EXPECT_EQ(failure->offset, 900);
}

TEST_F(LinuxFilesTest, SystemFilesTruncateAndSync) {
  const auto ops = hxhost::makeSystemFileOps();
  const int file = ops->open(path_, hxhost::OpenMode::kCreateNew);
  EXPECT_EQ(fcntl(file, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(ops->writeAt(file, "abcdef", 6, 0), 6);
  EXPECT_EQ(ops->truncate(file, 2), 0);
  EXPECT_EQ(ops->sync(file), 0);
  EXPECT_EQ(readFile(path_), "ab");
  EXPECT_EQ(ops->close(file), 0);
  EXPECT_EQ(ops->sync(file), -EBADF);
}

TEST(LinuxPathTest, IsStrictUtf8) {
  const std::u32string edges = U"\x01\x7f\x80\x7ff\x800\xd7ff\xe000\xffff\x10000\x10ffff";
  const auto encoded = hxhost::encodePath(edges.data(), std::ssize(edges));
  ASSERT_TRUE(encoded);
  EXPECT_EQ(encoded->size(), 2u + 2 * 2 + 4 * 3 + 2 * 4);
  EXPECT_EQ(hxhost::decodePath(*encoded), edges);
  std::istringstream broken(
      "\xc0\x80 \xc1\xbf \xe0\x9f\xbf \xed\xa0\x80 \xed\xbf\xbf \xf0\x8f\xbf\xbf \xf4\x90\x80\x80 "
      "\xf5\x80\x80 "
      "\x80 \xff \xe4\xb8x \xe4\xb8 \xf0\x9f\x93 \xc3 \xc3\xc3");
  for (std::string path; broken >> path;)
    EXPECT_FALSE(hxhost::decodePath(path)) << path;
  EXPECT_EQ(hxhost::describePath(U"a\xd800", 2), "a\xef\xbf\xbd");
}

}  // namespace
}  // namespace hxtest
