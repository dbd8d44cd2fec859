// The Linux host's files, on the real disk and on one that fails or falls short.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <sstream>

#include "host/file_io.h"
#include "host/linux/path_codec.h"
#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
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
  bool writeAt(int64_t position, const Bytes& bytes) {
    return seek(position) == position &&
           handle->write(handle, bytes.data(), std::ssize(bytes), 0, 0, 0) == 0;
  }
  // Up to `count` bytes; none when that failed.
  Bytes read(int64_t count) {
    Bytes bytes(static_cast<size_t>(count));
    hx::ReadRequest request{bytes.data(), count};
    if (handle->read(handle, &request, &count, 0, 0, 0) != 0) count = 0;
    bytes.resize(static_cast<size_t>(count));
    return bytes;
  }
  Bytes readAt(int64_t position, int64_t count) {
    return seek(position) == position ? read(count) : Bytes();
  }

  hx::FileHandle* handle;
};

// "write ENOSPC at 40", behind it "undone" when the update was rolled back. Empty for none.
std::string describe(const std::optional<hxhost::FileFailure>& failure, bool rolledBack = false) {
  if (!failure) return "";
  return std::string(nameOf(failure->operation)) + " " + strerrorname_np(failure->error) +
         (failure->offset < 0 ? "" : " at " + std::to_string(failure->offset)) +
         (rolledBack ? " undone" : "");
}

// Tells how an open or a removal failed.
class Files : public CrashFiles {
 public:
  explicit Files(const hxhost::HostOptions& options = {}) : CrashFiles(options) {}

  hx::FileHandle* open(std::u32string_view path, int32_t mode = hx::HX_ACCESS_UPDATE) {
    const hxhost::OpenRequest request({});
    hx::FileHandle* file = CrashFiles::open(path, mode);
    keep(request);
    return file;
  }
  int32_t remove(std::u32string_view path) {
    const hxhost::OpenRequest request({});
    const int32_t result = io()->remove(io(), path.data(), std::ssize(path), 0, 0);
    keep(request);
    return result;
  }
  // Why the last open or removal failed, else what was lost in the file that was opened last, else
  // its last failed read, which is forgotten.
  std::string failure() {
    if (refusal_ || file_ == nullptr) return describe(refusal_);
    if (file_->hasHappened()) return describe(file_->loss()) + " happened";
    if (file_->loss()) return describe(file_->loss(), file_->wasRolledBack());
    return describe(file_->takeFailedRead());
  }

 private:
  void keep(const hxhost::OpenRequest& request) {
    refusal_ = request.failure();
    file_ = request.file();
  }

  std::optional<hxhost::FileFailure> refusal_;
  std::shared_ptr<hxhost::FileOutcome> file_;
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

// One update of random reads and writes. Once something is lost nothing works any more: then false.
// `bytes` is what the file holds, and is to hold; what is committed on the way goes to `committed`.
bool updateAtRandom(Files& files, Bytes& bytes, unsigned seed, Bytes* committed = nullptr) {
  std::mt19937 random(seed);
  const auto below = [&](int64_t bound) { return static_cast<int64_t>(random()) % bound; };
  File file(files.open(kCrashStore));
  bool works = file.handle != nullptr;
  for (int i = 0; i < 25 && file.handle != nullptr; ++i) {
    if (i == 20 && committed != nullptr) {
      const bool isCommitted = hxhost::LinuxHost::commitUpdate(file.handle);
      EXPECT_TRUE(works || !isCommitted);
      works = isCommitted;
      EXPECT_TRUE(works || !file.writeAt(0, {1}));
      if (!works) break;
      *committed = bytes;
    }
    const int64_t size = std::ssize(bytes);
    const bool isLarge = i == 15;
    const int64_t reach = std::min<int64_t>(size + (below(4) == 0 ? 700 : 10), 45000);
    const int64_t position = isLarge ? 2000 : below(reach);
    const int64_t count = isLarge ? 30000 : below(4) == 0 ? below(3000) : below(120) + 1;
    const int64_t there = std::clamp<int64_t>(size - position, 0, count);
    const auto length = static_cast<size_t>(count);
    // Often what was there, zeros past the end too.
    const Bytes wanted = below(3) == 0 ? Bytes(length) : noise(length, seed);
    if (isLarge || below(2) == 0) {
      const bool isWritten = file.writeAt(position, wanted);
      EXPECT_FALSE(isWritten && !works && count > 0);
      works = works && isWritten;
      putAt(bytes, position, wanted);
    } else {
      const Bytes read = file.readAt(position, count);
      EXPECT_TRUE(works || read.empty());
      works = works && std::ssize(read) == there;
      EXPECT_TRUE(
          std::equal(read.begin(), read.end(), bytes.end() - size + std::min(position, size)));
    }
  }
  return works;
}

TEST(LinuxCacheTest, HoldsWhatAModelHoldsUnderAnyCacheAndTransfers) {
  for (const int64_t cacheBytes : {0, 256, 1000, 4096, 65536}) {
    for (const bool fallsShort : {false, true}) {
      SCOPED_TRACE(cacheBytes);
      SimulatedDisk disk;
      disk.fallsShort = fallsShort;
      Files files(hostOver(disk, cacheBytes));
      Bytes model;
      for (unsigned i = 0; i < 50 && !testing::Test::HasFailure(); ++i)
        EXPECT_TRUE(updateAtRandom(files, model, static_cast<unsigned>(cacheBytes) + i));
      EXPECT_EQ(disk.live().at(kCrashFile), model);
      EXPECT_EQ(files.failure(), "");
    }
  }
}

// Small records cost no transfer each, what an update has written itself is not read again to be
// overwritten, and what is written as it was costs no write.
TEST(LinuxCacheTest, TransfersAreFew) {
  constexpr int64_t kEnd = 40 + 1000 * 4120;
  SimulatedDisk disk;
  Files files(hostOver(disk, 1 << 20));
  std::map<DiskOperation, int> done;
  disk.watch = [&](const DiskStep& step) { ++done[step.operation]; };
  const auto expectAtMost = [&](int reads, int writes, int syncs) {
    EXPECT_LE(done[DiskOperation::kRead], reads);
    EXPECT_LE(done[DiskOperation::kWrite], writes);
    EXPECT_LE(done[DiskOperation::kSync], syncs);
    done.clear();
  };
  const Bytes record = noise(4120);
  std::optional<File> file(files.open(kCrashStore));
  for (int64_t at = 40; at < kEnd; at += 4120)
    EXPECT_TRUE(file->writeAt(at, record));
  EXPECT_TRUE(file->writeAt(40, record));
  file.reset();
  expectAtMost(0, 30, 2);
  file.emplace(files.open(kCrashStore));
  for (int64_t at = 40; at < kEnd; at += 4120)
    EXPECT_EQ(file->readAt(at, 24), noise(24));
  expectAtMost(30, 0, 0);
  file.reset();
  file.emplace(files.open(kCrashStore));
  EXPECT_TRUE(file->writeAt(kEnd - 4120, record));
  file->close();
  expectAtMost(9, 0, 0);
  file.emplace(
      files.open(kCrashStore));  // what records of large pages are walked for is announced, once
  std::vector<int64_t> expected;
  for (int64_t at = 40; at < kEnd; at += 41200) {
    EXPECT_EQ(file->readAt(at, 24), noise(24));
    if (at > 3 * 41200) expected.push_back(at);
  }
  EXPECT_EQ(disk.announced, expected);
}

class LinuxFilesTest : public testing::Test {
 protected:
  // Opens and closes.
  bool opens(const fs::path& path, int32_t mode = hx::HX_ACCESS_UPDATE) {
    return File(files_.open(toPath(path), mode)).handle != nullptr;
  }

  static std::u32string toPath(const fs::path& path) { return hxhost::decodePath(path.native()); }

  const TemporaryDirectory folder_;
  const fs::path path_ = folder_ / "store";
  Files files_;
};

// Parts of several lengths, some empty, more of them than one operation takes; on the real disk and
// on one that falls short. Nothing moves, and a file that is updated, an end and a failure refuse.
TEST_F(LinuxFilesTest, PartsAreReadAtAPlace) {
  const Bytes bytes = noise(3000);
  SimulatedDisk disk(diskWith(bytes));
  disk.fallsShort = true;
  Files simulated(hostOver(disk));
  File(files_.open(toPath(path_))).writeAt(0, bytes);
  Bytes read(600);
  std::vector<hx::ReadRequest> parts;
  for (int64_t i = 0, at = 0; i < 400; at += i++ % 4)
    parts.push_back({read.data() + at, i % 4});
  const auto readAt = [&](const File& file, int64_t offset) {
    return file.handle->readAt(file.handle, parts.data(), 400, offset);
  };
  for (Files* files : {&files_, &simulated}) {
    File file(files->open(files == &files_ ? toPath(path_) : kCrashStore, hx::HX_ACCESS_READ));
    ASSERT_EQ(file.seek(7), 7);
    EXPECT_EQ(readAt(file, 100), 0);
    EXPECT_EQ(read, Bytes(bytes.begin() + 100, bytes.begin() + 700));
    EXPECT_NE(readAt(file, 2401), 0);
    EXPECT_NE(readAt(file, -1), 0);
    EXPECT_EQ(file.read(5), Bytes(bytes.begin() + 7, bytes.begin() + 12));
  }
  File reader(simulated.open(kCrashStore, hx::HX_ACCESS_READ));
  disk.failAt = 0;
  EXPECT_NE(readAt(reader, 0), 0);
  EXPECT_EQ(simulated.failure(), "");  // it will be read once more
  parts[1].count = -1;
  EXPECT_NE(readAt(reader, 0), 0);
  reader.close();
  parts[1].count = 1;
  EXPECT_NE(readAt(File(simulated.open(kCrashStore)), 0), 0);
}

TEST_F(LinuxFilesTest, GivesTheResolvedPath) {
  fs::create_directory(folder_ / "data");
  fs::create_directory_symlink("data", folder_ / "link");
  const fs::path real = folder_.path() / "data" / u8"h\u00e9llo \U0001f4e6";
  const fs::path asked = folder_.path() / "link" / "." / real.filename();
  const File file(files_.open(toPath(asked)));
  EXPECT_EQ(std::u32string(file.handle->path), toPath(real));
}

TEST_F(LinuxFilesTest, OpensAndRemovesRegularFilesOnly) {
  const fs::path deep = folder_.path() / std::string(250, 'a') / std::string(250, 'b') /
                        std::string(250, 'c') / std::string(250, 'd') / std::string(30, 'e');
  fs::create_directories(deep);
  fs::create_directory_symlink(deep, folder_ / "deep");
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0666), 0);
  ASSERT_EQ(mknod((folder_ / "socket").c_str(), S_IFSOCK | 0666, 0), 0);
  fs::create_symlink("fifo", folder_ / "link");
  fs::create_symlink("loop", folder_ / "loop");
  constexpr int32_t kNothing = 1;
  const std::u32string in = toPath(folder_.path()) + U"/";
  const std::tuple<std::string, int32_t, std::vector<std::u32string>> refused[] = {
      {"EISDIR", hx::HX_REMOVE_NOT_REGULAR, {in, std::u32string(1023, U'/') + U"."}},
      {"EOPNOTSUPP", hx::HX_REMOVE_NOT_REGULAR, {in + U"fifo", in + U"link", in + U"socket"}},
      {"ENOENT", kNothing, {in + U"absent/x"}},
      {"ELOOP", hx::HX_REMOVE_IO_ERROR, {in + U"loop"}},
      {"ENAMETOOLONG", kNothing, {std::u32string(1025, U'/'), in + std::u32string(300, U'x')}},
      {"ENAMETOOLONG", kNothing, {in + U"deep/new"}},
      {"EINVAL",
       kNothing,
       {U"", in + U'\0', in + char32_t{0xd800}, in + char32_t{0xdc7f}, in + char32_t{0x110000}}}};
  for (const auto& [error, removal, paths] : refused) {
    for (const std::u32string& path : paths) {
      SCOPED_TRACE(testing::PrintToString(path));
      EXPECT_EQ(files_.open(path), nullptr);
      EXPECT_EQ(files_.failure(), "open " + error);
      EXPECT_EQ(files_.remove(path), removal);
    }
  }
  EXPECT_TRUE(fs::is_empty(deep) && fs::exists(folder_ / "fifo"));
  const fs::path tooLong = folder_ / std::string(250, 'x');
  writeFile(tooLong, "1");
  EXPECT_TRUE(opens(tooLong, hx::HX_ACCESS_READ));
  for (const bool isThere : {true, false}) {
    EXPECT_EQ(files_.open(toPath(tooLong)), nullptr) << "its journal's name would be too long";
    EXPECT_EQ(files_.failure(), "write the journal ENAMETOOLONG");
    EXPECT_EQ(files_.remove(toPath(tooLong)) == 0, isThere);
  }
}

TEST_F(LinuxFilesTest, LeavesNoEmptyFileBehindButItsOwnOnly) {
  const fs::path link = folder_ / "link";
  const fs::path target = folder_ / "target";
  EXPECT_TRUE(opens(path_));
  EXPECT_FALSE(fs::exists(path_)) << "created and closed empty";
  {
    const File created(files_.open(toPath(path_)));
    fs::remove(path_);
    writeFile(path_, "");
  }
  EXPECT_TRUE(fs::exists(path_)) << "somebody else's";
  EXPECT_TRUE(opens(path_));
  EXPECT_TRUE(fs::exists(path_)) << "was there before";
  fs::create_symlink(target, link);
  EXPECT_TRUE(opens(link));
  EXPECT_TRUE(fs::exists(target)) << "perhaps somebody else's";
  File(files_.open(toPath(link))).writeAt(0, {'7'});
  EXPECT_EQ(readFile(target), "7");
  EXPECT_EQ(files_.remove(toPath(link)), 0);
  EXPECT_TRUE(fs::is_symlink(link) && !fs::exists(target)) << "it goes where the data are";
}

TEST_F(LinuxFilesTest, TheJournalIsNobodysWayIntoAnotherFile) {
  fs::create_symlink(folder_ / "victim", path_.string() + "-journal");
  EXPECT_FALSE(opens(path_));
  EXPECT_FALSE(fs::exists(folder_ / "victim"));
}

// The way to the store leads elsewhere once it is open: what lies beside the name there is no
// concern of the update, and nothing is made there.
TEST_F(LinuxFilesTest, TheJournalLiesWhereTheFileWasOpened) {
  const fs::path way = folder_ / "way";
  const fs::path moved = folder_ / "moved";
  const fs::path victim = folder_ / "victim";
  writeFile(way / "store", "old");
  writeFile(victim / "store-journal", "theirs");
  fs::create_hard_link(way / "store", victim / "store");
  File file(files_.open(toPath(way / "store")));
  fs::rename(way, moved);
  fs::create_symlink(victim, way);
  EXPECT_TRUE(file.writeAt(0, {'n', 'e', 'w'}));
  file.close();
  EXPECT_EQ(files_.failure(), "");
  EXPECT_EQ(readFile(moved / "store"), "new");
  EXPECT_EQ(readFile(victim / "store-journal"), "theirs");
  EXPECT_FALSE(fs::exists(moved / "store-journal"));
}

// What is said to be there must be found under its name.
TEST_F(LinuxFilesTest, AFileThatLosesItsNameIsNoSuccessAndIsWhatItWas) {
  const fs::path moved = folder_ / "moved";
  for (const bool isCommit : {false, true}) {
    for (const bool isReplaced : {false, true}) {
      writeFile(path_, "old");
      File file(files_.open(toPath(path_)));
      EXPECT_TRUE(file.writeAt(0, {'n', 'e', 'w'}));
      fs::rename(path_, moved);
      if (isReplaced) writeFile(path_, "other");
      EXPECT_FALSE(isCommit && hxhost::LinuxHost::commitUpdate(file.handle));
      file.close();
      EXPECT_EQ(files_.failure(), "commit ENOENT undone");
      EXPECT_EQ(readFile(moved), "old");
      EXPECT_EQ(readFile(path_), isReplaced ? "other" : "");
      EXPECT_FALSE(fs::exists(path_.string() + "-journal"));
      fs::remove(path_);
    }
  }
}

TEST(LinuxDiskTest, RemovesAFileWithItsJournalOrTellsWhyNot) {
  const std::pair<int, int32_t> codes[] = {{EACCES, hx::HX_REMOVE_NO_PERMISSION},
                                           {EROFS, hx::HX_REMOVE_NO_PERMISSION},
                                           {EBUSY, hx::HX_REMOVE_IN_USE},
                                           {EIO, hx::HX_REMOVE_IO_ERROR}};
  SimulatedDisk disk({{{kCrashFile, 1}, {kCrashJournal, 2}}, {{1, {1}}, {2, {}}}});
  Files files(hostOver(disk));
  for (const auto& [error, code] : codes) {
    for (disk.failure = error; const int64_t operation : {0, 1, 2}) {
      disk.failAt = operation;
      EXPECT_EQ(files.remove(kCrashStore), code) << error;
      EXPECT_EQ(files.failure(), std::string("remove ") + strerrorname_np(error));
    }
  }
  disk.failAt = -1;
  disk.hasBecomeDevice = true;
  EXPECT_EQ(files.open(kCrashStore), nullptr);
  EXPECT_EQ(files.failure(), "open EOPNOTSUPP");
  disk.hasBecomeDevice = false;
  disk.watch = [&](const DiskStep& step) {
    if (step.operation != DiskOperation::kSyncDirectory || disk.live().has(kCrashFile)) return;
    EXPECT_FALSE(disk.synced().has(kCrashJournal)) << "gone on disk before the name is free";
    disk.open(kCrashJournal, hxhost::OpenMode::kCreatePrivate);
  };
  EXPECT_EQ(files.remove(kCrashStore), 0);
  EXPECT_TRUE(disk.live().has(kCrashJournal)) << "it is the next file's";
  EXPECT_FALSE(disk.synced().has(kCrashFile));
  EXPECT_GT(files.remove(kCrashStore), 0);
  EXPECT_EQ(files.failure(), "") << "an absent file is no failure";
}

TEST(LinuxDiskTest, RefusesSenselessCallsAndChangesNothing) {
  constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
  SimulatedDisk disk(diskWith({1, 2, 3, 4}));
  Files files(hostOver(disk));
  File file(files.open(kCrashStore));
  ASSERT_EQ(file.seek(1), 1);
  for (const int64_t position : {int64_t{-5}, -kLast - 1, kLast, kLast - 3})
    EXPECT_EQ(file.seek(position, hx::HX_SEEK_END), -1) << position;
  EXPECT_EQ(file.read(9), (Bytes{2, 3, 4})) << "the position is what it was";
  EXPECT_EQ(files.failure(), "");
  EXPECT_FALSE(file.writeAt(hxhost::kLongestFile, {1}));
  EXPECT_EQ(files.failure(), "write EFBIG at " + std::to_string(hxhost::kLongestFile));
  EXPECT_FALSE(file.writeAt(0, {9})) << "bytes were lost";
  file.close();
  File reader(files.open(kCrashStore, hx::HX_ACCESS_READ));
  EXPECT_FALSE(reader.writeAt(0, {9}));
  EXPECT_EQ(files.failure(), "write EBADF at 0");
  EXPECT_EQ(reader.readAt(0, 9), (Bytes{1, 2, 3, 4}));
}

// An update that a fault of the disk ends, or not: all of it is left or what was committed before,
// and that is told.
// Whether it was rolled back.
bool survives(SimulatedDisk& disk, int64_t cacheBytes, unsigned seed) {
  const bool commits = seed % 2 == 1;
  Bytes before = disk.live().at(kCrashFile);
  Bytes after = before;
  Files files(hostOver(disk, cacheBytes));
  updateAtRandom(files, after, seed, commits ? &before : nullptr);
  const std::string failure = files.failure();
  const bool isBack = failure.ends_with(" undone");
  EXPECT_FALSE(isBack && disk.live().has(kCrashJournal));
  EXPECT_TRUE(!isBack || disk.live().at(kCrashFile) == before);
  const bool isThere = disk.live().at(kCrashFile) == after && !disk.live().has(kCrashJournal);
  EXPECT_EQ(failure.ends_with(" happened"), failure.starts_with("commit") && isThere) << failure;
  SimulatedDisk repaired(disk.live());
  lookAt(repaired);
  const Bytes found = repaired.live().at(kCrashFile);
  EXPECT_TRUE(found == after || (!failure.empty() && found == before));
  SimulatedDisk cutOff(disk.synced());
  lookAt(cutOff);
  EXPECT_TRUE(!failure.empty() || cutOff.live().at(kCrashFile) == after)
      << "not told, but not durable";
  const bool mayLeaveEmpty = (commits || !isBack) && disk.failsEverAfter;
  EXPECT_TRUE(mayLeaveEmpty || repaired.live().has(kCrashFile) == !found.empty());
  return isBack;
}

TEST(LinuxLossTest, AnErrorAtAnyOperationIsToldAndLeavesAllOrNothing) {
  for (const DiskImage& image : {diskWith(noise(40001)), DiskImage()}) {
    for (const int64_t cacheBytes : {4096, 32768, 1 << 20}) {
      int rolledBack = 0;
      bool isOver = false;
      for (int64_t failAt = 0; !isOver; ++failAt) {
        SCOPED_TRACE(failAt);
        for (const unsigned seed : {7u, 8u, 10u, 11u}) {
          SimulatedDisk disk(image);
          disk.failAt = failAt;
          disk.failsEverAfter = seed > 9;
          disk.fallsShort = (failAt + seed) % 2 == 1;
          rolledBack += survives(disk, cacheBytes, seed);
          isOver = !disk.hasFired;
        }
      }
      EXPECT_GE(rolledBack, 10);
    }
  }
}

// A reader goes on to an update and back; the update may fail when it already excludes others.
TEST(LinuxDiskTest, WhoReadOnSharesAgainAfterAnUpdate) {
  for (const int64_t failAt : {-1, 3, 4}) {
    SimulatedDisk disk(diskWith({1, 2, 3}));
    Files files(hostOver(disk));
    Files others(hostOver(disk));
    const File reader(files.open(kCrashStore, hx::HX_ACCESS_READ));
    for (disk.failAt = failAt; const bool works : {failAt < 0, true}) {
      File updater(files.open(kCrashStore));
      EXPECT_EQ(updater.handle != nullptr, works);
      EXPECT_TRUE(!works || files.open(kCrashStore, hx::HX_ACCESS_READ) == nullptr);
      updater.close();
      EXPECT_NE(File(others.open(kCrashStore, hx::HX_ACCESS_READ)).handle, nullptr) << failAt;
    }
  }
}

TEST(LinuxDiskTest, ReadFailuresAreThoseOfBytesAskedFor) {
  SimulatedDisk disk(diskWith(noise(40000)));
  Files files(hostOver(disk));
  File file(files.open(kCrashStore, hx::HX_ACCESS_READ));
  disk.failAt = 0;
  EXPECT_EQ(file.read(900), noise(900));
  EXPECT_EQ(files.failure(), "") << "nobody asked for what lies ahead";
  disk.failAt = 0;
  disk.failsEverAfter = true;
  EXPECT_TRUE(file.read(900).empty());
  EXPECT_EQ(files.failure(), "read EIO at 900");
  EXPECT_EQ(files.failure(), "") << "told once";
  EXPECT_TRUE(file.read(900).empty());
  EXPECT_EQ(files.failure(), "read EIO at 900") << "who asks after each call learns of each";
  disk.failsEverAfter = false;
  file.close();
  File updated(files.open(kCrashStore));
  disk.failAt = 0;
  disk.failsEverAfter = true;
  for (const int64_t position : {700, 800}) {
    EXPECT_TRUE(updated.readAt(position, 900).empty());
    EXPECT_EQ(files.failure(), "read EIO at 700") << "it took the whole update with it";
  }
}

TEST_F(LinuxFilesTest, SystemFilesSyncAndStayOutOfOtherPrograms) {
  const auto ops = hxhost::makeSystemFileOps();
  const int file = ops->open(AT_FDCWD, path_, hxhost::OpenMode::kCreateNew);
  EXPECT_EQ(fcntl(file, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(ops->sync(file) + ops->close(file), 0);
  EXPECT_EQ(ops->sync(file), EBADF);
}

TEST(LinuxPathTest, IsStrictUtf8AndTheBytesThatAreNone) {
  const std::u32string edges = U"\x01\x7f\x80\x7ff\x800\xd7ff\xe000\xffff\x10000\x10ffff";
  const auto encoded = hxhost::encodePath(edges.data(), std::ssize(edges));
  ASSERT_TRUE(encoded);
  EXPECT_EQ(encoded->size(), 2u + 2 * 2 + 4 * 3 + 2 * 4);
  EXPECT_EQ(hxhost::decodePath(*encoded), edges);
  std::istringstream broken(
      "\xc0\x80 \xe0\x9f\xbf \xed\xa0\x80 \xed\xbf\xbf \xf0\x8f\xbf\xbf \xf4\x90\x80\x80 \x80 \xff "
      "\xe4\xb8x \xe4\xb8 \xf0\x9f\x93 \xc3 \xc3\xc3");
  for (std::string path; broken >> path;) {
    const std::u32string wide = hxhost::decodePath(path);
    EXPECT_EQ(wide[0], 0xdc00u + static_cast<unsigned char>(path[0])) << path;
    EXPECT_EQ(hxhost::encodePath(wide.data(), std::ssize(wide)), path);
  }
}

}  // namespace
}  // namespace hxtest
