// A tree of files packed and unpacked by commands.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "bench/cases.h"

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTree = "/usr/include";
constexpr std::size_t kLongestName = 64;  // that every engine keeps

// Directories and regular files whose names every engine keeps; no links.
void copyTree(const fs::path& from, const fs::path& to, std::size_t& filesLeft) {
  fs::create_directory(to);
  for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
    const fs::path name = entry.path().filename();
    if (entry.is_symlink() || name.string().size() > kLongestName || filesLeft == 0) continue;
    if (entry.is_directory()) copyTree(entry.path(), to / name, filesLeft);
    if (!entry.is_regular_file()) continue;
    fs::copy_file(entry.path(), to / name);
    --filesLeft;
  }
}

std::string contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  require(file.is_open(), "can't open " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t compareTrees(const fs::path& left, const fs::path& right) {
  std::size_t entries = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(left)) {
    const fs::path other = right / fs::relative(entry.path(), left);
    require(entry.is_directory() ? fs::is_directory(other)
                                 : contentOf(entry.path()) == contentOf(other),
            other.string() + " is not what was packed");
    ++entries;
  }
  return entries;
}

void runCommand(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int spawned =
      ::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw Unsupported("there is no command " + command[0]);
  int status = 0;
  require(::waitpid(child, &status, 0) == child && status == 0, command[0] + " failed");
}

void packAndUnpack(const Run& run, std::size_t files) {
  const std::string tree = run.keptForAll("tree", [&](const std::string& to) {
    std::size_t filesLeft = files;
    copyTree(kTree, to, filesLeft);
  });
  const std::string out = run.freshPath("out");
  fs::create_directory(out);
  const Archiver archiver = run.engine().archiver(run.freshPath("archive"), tree, out);
  run.measure([&] { runCommand(archiver.pack); });
  run.measure([&] { runCommand(archiver.unpack); });
  if (run.verifies()) require(compareTrees(tree, out) > 0, "the tree is empty");
}

}  // namespace

void addArchiveCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t files = scale.treeFiles;
  const std::string tree = kTree;
  cases.push_back({'l',
                   {{"l-pack", tree + " packed", kMilliseconds, 1},
                    {"l-unpack", tree + " unpacked", kMilliseconds, 1}},
                   [=](const Run& run) { packAndUnpack(run, files); }});
}

}  // namespace bench
