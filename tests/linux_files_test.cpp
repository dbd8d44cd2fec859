// The Linux host's files, on the real disk and over file operations that fail or fall short.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "host/file_io.h"
#include "host/linux/file_ops.h"
#include "host/linux/linux_host.h"
#include "host/linux/path_codec.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using Path = std::string;
using hxhost::FileInfo;
using hxhost::FileOps;
using hxhost::LockKind;
using hxhost::OpenMode;

// The system's files, counted, and failing where a test says.
class FaultyOps : public FileOps {
 public:
  int64_t failAt = -1;  // which operation from now on fails; -1 for none
  bool failsEverAfter = false;
  int failure = EIO;
  bool fallsShort = false;       // transfers deliver at most half of what was asked for
  bool isFull = false;           // writes fail with ENOSPC
  bool hasBecomeDevice = false;  // what is opened is not what was there a moment ago
  int64_t unreadableFrom = std::numeric_limits<int64_t>::max();
  int64_t transfers = 0;
  bool hasFired = false;

  int open(const Path& path, OpenMode mode) override { return attempt(&FileOps::open, path, mode); }
  int close(int file) override {
    const int result = system_->close(file);
    return fails() ? -failure : result;
  }
  int64_t readAt(int file, void* out, size_t count, int64_t offset) override {
    ++transfers;
    if (offset + static_cast<int64_t>(count) > unreadableFrom) return -EIO;
    return attempt(&FileOps::readAt, file, out, shorten(count), offset);
  }
  int64_t writeAt(int file, const void* bytes, size_t count, int64_t offset) override {
    ++transfers;
    if (isFull) return -ENOSPC;
    return attempt(&FileOps::writeAt, file, bytes, shorten(count), offset);
  }
  int inspect(int file, FileInfo& info) override {
    const int result = attempt(&FileOps::inspect, file, info);
    info.isRegular &= !hasBecomeDevice;
    return result;
  }
  int inspectPath(const Path& path, FileInfo& info) override {
    return attempt(&FileOps::inspectPath, path, info);
  }
  int remove(const Path& path) override { return attempt(&FileOps::remove, path); }
  int resolve(const Path& path, Path& out) override {
    return attempt(&FileOps::resolve, path, out);
  }
  int truncate(int file, int64_t size) override { return attempt(&FileOps::truncate, file, size); }
  int sync(int file) override { return attempt(&FileOps::sync, file); }
  int lock(int file, LockKind kind) override { return attempt(&FileOps::lock, file, kind); }
  int copyAccess(int from, int to) override { return attempt(&FileOps::copyAccess, from, to); }
  int syncDirectory(const Path& path) override { return attempt(&FileOps::syncDirectory, path); }

 private:
  bool fails() {
    const bool now = failAt == 0 || (failAt < 0 && hasFired && failsEverAfter);
    if (failAt >= 0) --failAt;
    hasFired |= now;
    return now;
  }
  template <typename Result, typename... Parameters>
  Result attempt(Result (FileOps::*operation)(Parameters...),
                 std::type_identity_t<Parameters>... arguments) {
    return fails() ? -failure : (system_.get()->*operation)(arguments...);
  }
  size_t shorten(size_t count) const { return fallsShort ? (count + 1) / 2 : count; }

  std::shared_ptr<FileOps> system_ = hxhost::makeSystemFileOps();
};

// An open file in the words of the tests. Closes what is still open.
class File {
 public:
  explicit File(hx::FileHandle* handle) : handle_(handle) {}
  ~File() { close(); }
  File(const File&) = delete;

  bool isOpen() const { return handle_ != nullptr; }
  void close() {
    if (handle_ != nullptr) handle_->close(handle_);
    handle_ = nullptr;
  }
  std::u32string path() const { return {handle_->path, static_cast<size_t>(handle_->pathLength)}; }
  // The new position, or -1.
  int64_t seek(int64_t position, int32_t whence = hx::HX_SEEK_START) {
    return handle_->seek(handle_, &position, whence, 0) == 0 ? position : -1;
  }
  int64_t size() { return seek(0, hx::HX_SEEK_END); }
  bool write(const Bytes& bytes) {
    return handle_->write(handle_, bytes.data(), std::ssize(bytes), 0, 0, 0) == 0;
  }
  bool writeAt(int64_t position, const Bytes& bytes) {
    return seek(position) == position && write(bytes);
  }
  // Up to `count` bytes, in as many calls as it takes.
  Bytes read(int64_t count) {
    Bytes bytes(static_cast<size_t>(count));
    int64_t done = 0;
    while (done < count) {
      hx::ReadRequest request{bytes.data() + done, count - done};
      if (handle_->read(handle_, &request, &request.count, 0, 0, 0) != 0) break;
      EXPECT_GT(request.count, 0);
      done += request.count;
    }
    bytes.resize(static_cast<size_t>(done));
    return bytes;
  }
  Bytes readAt(int64_t position, int64_t count) {
    EXPECT_EQ(seek(position), position);
    return read(count);
  }
  hx::FileHandle* handle() { return handle_; }

 private:
  hx::FileHandle* handle_;
};

std::u32string toPath(const fs::path& path) {
  return *hxhost::decodePath(path.native());
}

// A host over FaultyOps, and its hxfio.
class Disk {
 public:
  explicit Disk(int64_t cacheBytes = 1 << 20) : host_({cacheBytes, ops_}) {}
  ~Disk() { io_->head.destroy(io_); }

  hx::FileHandle* open(std::u32string_view path, int32_t mode) {
    hx::OpenParameters parameters{};
    parameters.accessMode = mode;
    return io_->open(io_, path.data(), std::ssize(path), &parameters, 0, 0, "hxfio", nullptr, 0);
  }
  File openForReading(const fs::path& path) { return File(open(toPath(path), 1)); }
  File openForUpdate(const fs::path& path) { return File(open(toPath(path), 3)); }
  int32_t remove(std::u32string_view path) {
    return io_->remove(io_, path.data(), std::ssize(path), 0, 0);
  }
  // The errno of the last failure, 0 when there is none. All are forgotten.
  int takeError() {
    int error = 0;
    while (const auto failure = host_.takeFileFailure())
      error = failure->error;
    return error;
  }
  FaultyOps& ops() { return *ops_; }
  hxhost::LinuxHost& host() { return host_; }

 private:
  std::shared_ptr<FaultyOps> ops_ = std::make_shared<FaultyOps>();
  hxhost::LinuxHost host_;
  hx::FileIo* io_ =
      static_cast<hx::FileIo*>(host_.handle()->loadExtension(host_.handle(), U"hxfio", 5, 0));
};

class LinuxFilesTest : public testing::Test {
 protected:
  ~LinuxFilesTest() override { fs::remove_all(folder_); }

  static Bytes contentOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static void put(const fs::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  }
  static Bytes noise(size_t count, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    return bytes;
  }

  static fs::path makeFolder() {
    std::string pattern = (fs::temp_directory_path() / "hxfilesXXXXXX").native();
    return fs::canonical(mkdtemp(pattern.data()));
  }

  const fs::path folder_ = makeFolder();
  const fs::path path_ = folder_ / "store";
};

// A file and what it must hold, moved through the same random steps.
class Model {
 public:
  Model(Disk& disk, std::u32string path, unsigned seed)
      : disk_(disk), path_(std::move(path)), random_(seed) {
    reopen();
  }

  void step() {
    const int64_t position = below(std::min<int64_t>(size() + (below(4) == 0 ? 700 : 10), 20000));
    const int64_t count = below(8) == 0 ? below(3000) : below(120);
    if (below(50) == 0) reopen();
    ASSERT_EQ(file_->seek(position), position);
    if (below(2) == 0) return write(position, count);
    const int64_t from = std::min(position, size());
    const int64_t to = std::min(position + count, size());
    ASSERT_EQ(file_->read(count), Bytes(bytes_.data() + from, bytes_.data() + std::max(from, to)));
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
    for (uint8_t& byte : bytes)
      byte = static_cast<uint8_t>(below(3));  // often what was there
    ASSERT_TRUE(file_->write(bytes));
    if (count == 0) return;
    bytes_.resize(static_cast<size_t>(std::max(size(), position + count)));
    std::copy(bytes.begin(), bytes.end(), bytes_.begin() + position);
  }

  void reopen() {
    file_.reset();
    file_.emplace(disk_.open(path_, 3));
    ASSERT_TRUE(file_->isOpen());
  }

  Disk& disk_;
  std::u32string path_;
  std::mt19937 random_;
  std::optional<File> file_;
  Bytes bytes_;
};

TEST_F(LinuxFilesTest, HoldsWhatAModelHoldsUnderAnyCacheAndTransfers) {
  for (const int64_t cacheBytes : {0, 256, 1000, 4096, 65536}) {
    for (const bool fallsShort : {false, true}) {
      const auto seed = static_cast<unsigned>(cacheBytes * 2 + fallsShort);
      SCOPED_TRACE("seed " + std::to_string(seed));
      Disk disk(cacheBytes);
      disk.ops().fallsShort = fallsShort;
      Model model(disk, toPath(path_), seed);
      for (int i = 0; i < 2000 && !HasFatalFailure(); ++i)
        model.step();
      const Bytes expected = model.close();
      ASSERT_EQ(contentOf(path_), expected);
      EXPECT_EQ(disk.takeError(), 0);
      fs::remove(path_);
    }
  }
}

TEST_F(LinuxFilesTest, SmallRecordsCostNoTransferEach) {
  const Bytes record = noise(24, 1);
  const Bytes page = noise(4096, 2);
  const Bytes entry = noise(96, 3);
  Disk disk;
  const auto countTransfers = [&](const std::function<bool(File&, int64_t)>& visit) {
    disk.ops().transfers = 0;
    File file = disk.openForUpdate(path_);
    for (int64_t i = 0; i < 1000; ++i)
      EXPECT_TRUE(visit(file, 40 + i * (24 + 4096)));
    file.close();
    return disk.ops().transfers;
  };
  EXPECT_LE(countTransfers([&](File& file, int64_t at) {
              return file.writeAt(at, record) && file.writeAt(at + 24, page);
            }),
            20);
  EXPECT_LE(countTransfers([&](File& file, int64_t at) { return file.readAt(at, 24) == record; }),
            30);
  EXPECT_LE(countTransfers([&](File& file, int64_t at) {
              return file.readAt(at, 24) == record && file.readAt(at + 24, 4096) == page;
            }),
            30);
  EXPECT_LE(countTransfers([&](File& file, int64_t at) {
              const int64_t end = file.size();
              return file.writeAt(at, file.readAt(at, 96)) && file.writeAt(end, entry);
            }),
            40);
  EXPECT_EQ(disk.takeError(), 0);
}

TEST_F(LinuxFilesTest, GivesTheResolvedPath) {
  fs::create_directory(folder_ / "data");
  fs::create_directory_symlink("data", folder_ / "link");
  const fs::path real = folder_ / "data" / u8"h\u00e9llo \U0001f4e6";
  put(real, {1});
  Disk disk;
  EXPECT_EQ(disk.openForReading(folder_ / "link" / "." / real.filename()).path(), toPath(real));
  const fs::path before = fs::current_path();
  fs::current_path(folder_ / "link");
  EXPECT_EQ(File(disk.open(U"new", 3)).path(), toPath(folder_ / "data" / "new"));
  fs::current_path(before);
}

TEST_F(LinuxFilesTest, OpensNothingButRegularFiles) {
  const fs::path latin = folder_ / "latin\xe9";
  fs::create_directory(latin);
  fs::create_directory_symlink(latin, folder_ / "dir");
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0666), 0);
  fs::create_symlink("fifo", folder_ / "link");
  fs::create_symlink("loop", folder_ / "loop");
  const std::u32string in = toPath(folder_) + U"/";
  const std::pair<int, std::vector<std::u32string>> refused[] = {
      {EISDIR, {toPath(folder_), std::u32string(1023, U'/') + U"."}},
      {ENOTSUP, {in + U"fifo", in + U"link", U"/dev/null", U"/dev/tty"}},
      {ENOENT, {in + U"absent/x"}},
      {ELOOP, {in + U"loop"}},
      {EILSEQ, {in + U"dir/new"}},
      {ENAMETOOLONG, {std::u32string(1025, U'/'), in + std::u32string(300, U'x')}},
      {EINVAL, {U"", in + U'\0', in + char32_t{0xd800}, in + char32_t{0x110000}}}};
  Disk disk;
  for (const auto& [error, paths] : refused) {
    for (const std::u32string& path : paths) {
      EXPECT_FALSE(File(disk.open(path, hx::HX_ACCESS_UPDATE)).isOpen());
      const auto failure = disk.host().takeFileFailure();
      ASSERT_TRUE(failure);
      EXPECT_EQ(failure->error, error) << failure->path;
      EXPECT_EQ(failure->operation, "open");
    }
  }
  EXPECT_TRUE(fs::is_empty(latin));
  EXPECT_FALSE(disk.openForReading(path_).isOpen());
  EXPECT_EQ(disk.takeError(), ENOENT);
  put(path_, {1});
  for (const int32_t mode : {0, 2, 4})
    EXPECT_EQ(disk.open(toPath(path_), mode), nullptr);
  EXPECT_EQ(disk.takeError(), EINVAL);
  disk.ops().hasBecomeDevice = true;
  EXPECT_FALSE(disk.openForUpdate(path_).isOpen());
  EXPECT_EQ(disk.takeError(), ENOTSUP);
}

TEST_F(LinuxFilesTest, LeavesNoEmptyFileBehindButItsOwnOnly) {
  Disk disk;
  ASSERT_TRUE(disk.openForUpdate(path_).isOpen());
  EXPECT_FALSE(fs::exists(path_)) << "created and closed empty";
  disk.openForUpdate(path_).write({1});
  EXPECT_EQ(contentOf(path_), Bytes{1});
  put(path_, {});
  ASSERT_TRUE(disk.openForUpdate(path_).isOpen());
  EXPECT_TRUE(fs::exists(path_)) << "was there before";
  fs::remove(path_);
  {
    File created = disk.openForUpdate(path_);
    fs::remove(path_);
    put(folder_ / "other", {});
    fs::rename(folder_ / "other", path_);
  }
  EXPECT_TRUE(fs::exists(path_)) << "somebody else's";
  fs::create_symlink(folder_ / "target", folder_ / "link");
  disk.openForUpdate(folder_ / "link").write({7});
  EXPECT_EQ(contentOf(folder_ / "target"), Bytes{7});
  EXPECT_EQ(disk.takeError(), 0);
}

TEST_F(LinuxFilesTest, RemovesRegularFilesAndTellsWhyNot) {
  Disk disk;
  const auto remove = [&](const fs::path& path) { return disk.remove(toPath(path)); };
  put(path_, {1});
  fs::create_symlink(path_, folder_ / "link");
  EXPECT_EQ(remove(folder_ / "link"), 0);
  EXPECT_FALSE(fs::exists(path_)) << "where the data are";
  EXPECT_TRUE(fs::is_symlink(folder_ / "link"));
  put(path_, {1});
  EXPECT_EQ(remove(path_), 0);
  const fs::path fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  EXPECT_EQ(remove(fifo), hx::HX_REMOVE_NOT_REGULAR);
  EXPECT_EQ(remove(folder_), hx::HX_REMOVE_NOT_REGULAR);
  EXPECT_TRUE(fs::exists(fifo));
  EXPECT_EQ(disk.takeError(), EISDIR);
  for (const std::u32string& nothing : {toPath(path_), toPath(fifo) + U"/x", std::u32string(),
                                        std::u32string(1025, U'a'), std::u32string(2, U'\0')}) {
    const int32_t result = disk.remove(nothing);
    EXPECT_TRUE(result > 0) << result;
  }
  put(path_, {1});
  const std::pair<int, int32_t> codes[] = {
      {EACCES, hx::HX_REMOVE_NO_PERMISSION}, {EPERM, hx::HX_REMOVE_NO_PERMISSION},
      {EROFS, hx::HX_REMOVE_NO_PERMISSION},  {EBUSY, hx::HX_REMOVE_IN_USE},
      {ETXTBSY, hx::HX_REMOVE_IN_USE},       {EIO, hx::HX_REMOVE_IO_ERROR},
      {ENOMEM, hx::HX_REMOVE_IO_ERROR}};
  for (const auto& [error, code] : codes) {
    for (int64_t operation = 0; operation < 3; ++operation) {
      disk.ops().failAt = operation;
      disk.ops().failure = error;
      EXPECT_EQ(remove(path_), code) << error;
      EXPECT_EQ(disk.takeError(), error);
    }
  }
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(LinuxFilesTest, RefusesSenselessCallsAndChangesNothing) {
  constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
  put(path_, {1, 2, 3, 4});
  Disk disk;
  File file = disk.openForUpdate(path_);
  ASSERT_EQ(file.seek(1), 1);
  for (const int64_t position : {int64_t{-1}, -kLast - 1})
    EXPECT_EQ(file.seek(position), -1);
  for (const int64_t position : {int64_t{-5}, -kLast - 1, kLast, kLast - 3}) {
    EXPECT_EQ(file.seek(position, hx::HX_SEEK_END), -1) << position;
  }
  for (const int32_t whence : {-1, 1, 3})
    EXPECT_EQ(file.seek(0, whence), -1) << whence;
  hx::FileHandle* handle = file.handle();
  uint8_t byte = 0;
  for (hx::ReadRequest request : {hx::ReadRequest{&byte, 0}, {&byte, -1}, {nullptr, 1}}) {
    EXPECT_NE(handle->read(handle, &request, &request.count, 0, 0, 0), 0);
  }
  EXPECT_NE(handle->write(handle, &byte, -1, 0, 0, 0), 0);
  EXPECT_NE(handle->write(handle, nullptr, 1, 0, 0, 0), 0);
  EXPECT_EQ(file.read(9), (Bytes{2, 3, 4})) << "the position is what it was";
  EXPECT_EQ(disk.takeError(), 0);
  EXPECT_FALSE(file.writeAt(kLast, {1}));
  EXPECT_EQ(disk.takeError(), EFBIG) << "bytes were lost";
  EXPECT_EQ(file.size(), 4);
  file.close();
  File reader = disk.openForReading(path_);
  EXPECT_FALSE(reader.write({9}));
  EXPECT_EQ(disk.takeError(), EBADF);
  EXPECT_EQ(reader.readAt(0, 9), (Bytes{1, 2, 3, 4}));
}

TEST_F(LinuxFilesTest, NeverLosesAByteInSilence) {
  const Bytes before = noise(3000, 4);
  const Bytes change = noise(500, 5);
  Bytes expected = before;
  std::copy(change.begin(), change.end(), expected.begin() + 100);
  expected.resize(4000);
  expected.insert(expected.end(), change.begin(), change.end());
  for (int64_t run = 0, finished = 0; finished < 2; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    put(path_, before);
    Disk disk(256);
    disk.ops().failAt = run / 2;
    disk.ops().failsEverAfter = run % 2 == 1;
    if (File file = disk.openForUpdate(path_); file.isOpen()) {
      file.writeAt(100, change);
      file.writeAt(4000, change);
      const Bytes back = file.readAt(0, 4500);
      EXPECT_TRUE(std::equal(back.begin(), back.end(), expected.begin()));
      EXPECT_TRUE(back.size() == expected.size() || disk.ops().hasFired);
    }
    const auto failure = disk.host().takeFileFailure();
    EXPECT_TRUE(!failure || disk.ops().hasFired);
    EXPECT_TRUE(!failure || !failure->rolledBack || contentOf(path_) == before);
    Disk next;
    EXPECT_TRUE(next.openForReading(path_).isOpen());
    const Bytes found = contentOf(path_);
    EXPECT_TRUE(found == expected || (failure && found == before));
    finished += !disk.ops().hasFired;
  }
}

TEST_F(LinuxFilesTest, AFailingOpenLeavesNoEmptyFileInSilence) {
  for (int64_t failAt = 0;; ++failAt) {
    Disk disk;
    Disk bystander;
    disk.ops().failAt = failAt;
    const bool wasOpen = disk.openForUpdate(path_).isOpen();
    const bool wasTold = disk.takeError() == EIO;
    EXPECT_EQ(wasTold, disk.ops().hasFired) << failAt;
    EXPECT_TRUE((wasOpen && wasTold) || !fs::exists(path_)) << failAt;
    EXPECT_EQ(bystander.takeError(), 0);
    fs::remove(path_);
    if (!disk.ops().hasFired) break;
  }
}

TEST_F(LinuxFilesTest, NothingFollowsALostWrite) {
  const Bytes before = noise(8192, 6);
  const struct {
    std::string operation;
    int64_t offset;
    // Touches a block. False at last, when what was written at 0 is lost.
    std::function<bool(File&, int64_t)> touch;
  } ways[] = {
      {"write", 0, [](File& file, int64_t block) { return file.writeAt(block, {1}); }},
      {"write", 0, [](File& file, int64_t block) { return file.readAt(block, 1).size() == 1; }},
      {"read", 1, [](File& file, int64_t) { return file.writeAt(63, {1}); }},
  };
  for (const auto& way : ways) {
    put(path_, before);
    Disk disk(256);
    File file = disk.openForUpdate(path_);
    ASSERT_TRUE(file.write({99}));
    disk.ops().isFull = true;
    disk.ops().failAt = way.operation == "read" ? 0 : -1;
    int64_t block = 64;
    while (block < 640 && way.touch(file, block))
      block += 64;
    EXPECT_LT(block, 640);
    disk.ops().isFull = false;
    EXPECT_FALSE(file.writeAt(5000, {1}));
    EXPECT_TRUE(file.readAt(0, 10).empty());
    disk.ops().failAt = 0;  // the closing: a second failure, which does not hide the first
    file.close();
    const auto failure = disk.host().takeFileFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->error, way.operation == "read" ? EIO : ENOSPC);
    EXPECT_EQ(failure->operation, way.operation);
    EXPECT_EQ(failure->offset, way.offset);
    EXPECT_EQ(failure->path, path_);
    EXPECT_EQ(failure->rolledBack, way.operation == "read") << "the journal could not be removed";
    EXPECT_EQ(contentOf(path_), before);
  }
}

TEST_F(LinuxFilesTest, ReadFailuresAreThoseOfBytesAskedFor) {
  const Bytes bytes = noise(40000, 7);
  put(path_, bytes);
  Disk disk;
  File file = disk.openForReading(path_);
  disk.ops().unreadableFrom = 1000;
  EXPECT_EQ(file.read(900), Bytes(bytes.begin(), bytes.begin() + 900));
  EXPECT_EQ(disk.takeError(), 0) << "nobody asked for what lies ahead";
  EXPECT_TRUE(file.read(900).empty());
  EXPECT_EQ(disk.takeError(), EIO);
  disk.ops().unreadableFrom = 1 << 20;
  EXPECT_EQ(file.size(), 40000);
  EXPECT_TRUE(file.read(1).empty()) << "the end is no failure";
  EXPECT_EQ(disk.takeError(), 0);
  File shrinking = disk.openForReading(path_);
  fs::resize_file(path_, 10);
  EXPECT_TRUE(shrinking.readAt(100, 24).empty());
  const auto failure = disk.host().takeFileFailure();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->operation, "read");
  EXPECT_EQ(failure->offset, 100);
}

TEST_F(LinuxFilesTest, SystemFilesTruncateAndSync) {
  const auto ops = hxhost::makeSystemFileOps();
  const int file = ops->open(path_, OpenMode::kCreateNew);
  EXPECT_EQ(fcntl(file, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(ops->writeAt(file, "abcdef", 6, 0), 6);
  EXPECT_EQ(ops->truncate(file, 2), 0);
  EXPECT_EQ(ops->sync(file), 0);
  EXPECT_EQ(contentOf(path_), (Bytes{'a', 'b'}));
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
