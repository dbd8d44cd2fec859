#include "further_command.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace tool {

namespace {

bool isPlain(const std::string& name) {
  return std::ranges::all_of(name, [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; });
}

}  // namespace

void runFurtherCommand(const std::string& name, char** words) {
  if (!isPlain(name)) return;
  std::string program = "hxcrate-" + name;
  words[0] = program.data();
  std::error_code ignored;
  const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", ignored);
  ::execv((own.parent_path() / program).c_str(), words);
  ::execvp(program.c_str(), words);
}

std::string hintAtPackage(const std::string& name) {
  return name == "mount" ? ": install the package hxcrate-mount" : "";
}

}  // namespace tool
