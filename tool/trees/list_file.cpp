#include "list_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <span>
#include <utility>

#include "tool/files/byte_pump.h"
#include "tool/report/report.h"

namespace tool {

Descriptor openList(const std::string& path) {
  static bool isInputTaken = false;
  const bool isInput = path == "-";
  if (isInput && std::exchange(isInputTaken, true)) {
    throw Failure(ExitCode::usage, "standard input", "",
                  "it can be one file of a command, not two");
  }
  Descriptor file(repeatInterrupted([&] {
    return isInput ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                   : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }));
  if (!file.isOpen()) throw systemFailure(isInput ? "standard input" : path, "open");
  return file;
}

std::vector<std::string> readList(const std::string& path, char end) {
  const std::string shown = path == "-" ? "standard input" : path;
  const Descriptor file = openList(path);
  std::vector<std::string> entries(1);
  BytePump(nullptr).move(BytePump::kEverything, takeFrom(file, shown),
                         [&](std::span<const std::byte> bytes) {
                           for (const std::byte byte : bytes) {
                             const char character = static_cast<char>(byte);
                             if (character != end) entries.back() += character;
                             if (character == end && !entries.back().empty())
                               entries.emplace_back();
                           }
                         });
  if (entries.back().empty()) entries.pop_back();
  return entries;
}

}  // namespace tool
