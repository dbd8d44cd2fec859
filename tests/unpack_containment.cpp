#include <fcntl.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "tests/fuzzed.h"
#include "tests/temporary_directory.h"
#include "tool/command_line.h"

namespace hxtest {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kMostEntries = 40;
constexpr std::uintmax_t kMostBytes = 20000;

void require(bool holds, const std::string& what) {
  if (!holds) throw std::logic_error("unpacking: " + what);
}

}  // namespace

int runSilently(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  const int said = ::dup(STDERR_FILENO), printed = ::dup(STDOUT_FILENO);
  ::dup2(nowhere, STDERR_FILENO);
  ::dup2(nowhere, STDOUT_FILENO);
  const auto code = tool::runCommand(static_cast<int>(words.size()), arguments.data());
  ::dup2(said, STDERR_FILENO);
  ::dup2(printed, STDOUT_FILENO);
  for (const int file : {nowhere, said, printed})
    ::close(file);
  return static_cast<int>(code);
}

// Beside the directory lies what its links lead to, under names that a store may well hold.
std::size_t expectContainedUnpack(std::span<const std::uint8_t> image) {
  const TemporaryDirectory directory("/dev/shm");
  writeFile(directory / "x.st", {image.begin(), image.end()});
  writeFile(directory / "outside/file", "not to be touched");
  fs::create_directory(directory / "out");
  fs::create_symlink("../outside/file", directory / "out/a");
  fs::create_directory_symlink("../outside", directory / "out/b");
  fs::create_symlink("../outside/new", directory / "out/c");
  const auto before = readTree(directory.path());

  std::vector<std::string> words = {"hxcrate",          "unpack",
                                    "--max-entries",    std::to_string(kMostEntries),
                                    "--max-bytes",      std::to_string(kMostBytes),
                                    directory / "x.st", directory / "out"};
  if (image.size() % 2 == 0) words.emplace_back("--overwrite");
  const int code = runSilently(words);
  require(std::set{0, 1, 3, 4, 5}.count(code) > 0, "exit code " + std::to_string(code));

  auto made = readTree(directory.path());
  for (const auto& [path, bytes] : before) {
    require(made.count(path) > 0 && made[path] == bytes, path + " was changed");
    made.erase(path);
  }
  require(made.size() <= kMostEntries, std::to_string(made.size()) + " entries were made");
  std::uintmax_t sum = 0;
  for (const auto& [path, bytes] : made) {
    require(path.starts_with("out/"), path + " was made outside");
    require(path.find("/.hxcrate") == std::string::npos, path + " was left behind");
    sum += fs::is_regular_file(directory / path) ? bytes.size() : 0;
  }
  require(sum <= kMostBytes, std::to_string(sum) + " bytes were written");
  return made.size();
}

}  // namespace hxtest
