#include "tests/unpack_containment.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <set>
#include <string>

#include "tests/temporary_directory.h"
#include "tool/run_command.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kMostEntries = 40;
constexpr std::uintmax_t kMostBytes = 20000;
constexpr const char* kSecret = "not to be touched";

void require(bool holds, const std::string& what) {
  if (!holds) throw std::logic_error("unpacking: " + what);
}

// What the command says goes nowhere meanwhile.
class Silence {
 public:
  Silence() : said_(::dup(STDERR_FILENO)) {
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
  }
  ~Silence() {
    ::dup2(said_, STDERR_FILENO);
    ::close(said_);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int said_;
};

std::set<std::string> listNames(const fs::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

// A room with the store, the directory to unpack into and a sentinel beside it, which links in the
// directory lead to under names that a store may well hold.
class Room {
 public:
  explicit Room(const std::string& image) : image_(image) {
    writeFile(directory_ / "x.st", image);
    writeFile(directory_ / "outside/file", kSecret);
    fs::create_directory(out());
    fs::create_symlink("../outside/file", out() / "a");
    fs::create_directory_symlink("../outside", out() / "b");
    fs::create_symlink("../outside/new", out() / "c");
  }

  int unpack() const {
    std::array<std::string, 9> words = {"hxcrate",           "unpack",
                                        "--max-entries",     std::to_string(kMostEntries),
                                        "--max-bytes",       std::to_string(kMostBytes),
                                        directory_ / "x.st", out(),
                                        "--overwrite"};
    std::array<char*, words.size() + 1> arguments{};
    for (std::size_t i = 0; i < words.size(); ++i)
      arguments[i] = words[i].data();
    const int count = static_cast<int>(words.size() - image_.size() % 2);
    arguments[static_cast<std::size_t>(count)] = nullptr;
    const Silence silence;
    return static_cast<int>(tool::runCommand(count, arguments.data()));
  }

  void expectOutsideAsBefore() const {
    require(listNames(directory_.path()) == std::set<std::string>{"x.st", "out", "outside"},
            "something was made beside the directory");
    require(listNames(directory_ / "outside") == std::set<std::string>{"file"},
            "something was made behind a link");
    require(readFile(directory_ / "outside/file") == kSecret, "a file behind a link was changed");
    require(readFile(directory_ / "x.st") == image_, "the store was changed");
    for (const char* link : {"a", "b", "c"})
      require(fs::is_symlink(out() / link), "a link was replaced");
  }

  void expectQuotasKept() const {
    std::uintmax_t entries = 0;
    std::uintmax_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(out())) {
      if (entry.is_symlink()) continue;
      ++entries;
      if (entry.is_regular_file()) bytes += entry.file_size();
      require(entry.is_directory() || entry.is_regular_file(), "neither file nor directory");
      require(!entry.path().filename().string().starts_with(".hxcrate"), "a file was left behind");
    }
    require(entries <= kMostEntries, std::to_string(entries) + " entries were made");
    require(bytes <= kMostBytes, std::to_string(bytes) + " bytes were written");
  }

 private:
  fs::path out() const { return directory_.path() / "out"; }

  TemporaryDirectory directory_{"/dev/shm"};
  const std::string& image_;
};

}  // namespace

void expectContainedUnpack(std::span<const std::uint8_t> image) {
  const std::string bytes(image.begin(), image.end());
  const Room room(bytes);
  const int code = room.unpack();
  require(code == 0 || code == 1 || code == 3 || code == 4 || code == 5,
          "exit code " + std::to_string(code));
  room.expectOutsideAsBefore();
  room.expectQuotasKept();
}

}  // namespace hxtest
