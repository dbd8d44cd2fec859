#include "bench/run.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

// What the child tells: a letter and, behind it, a figure or a reason; one a line.
constexpr char kSeconds = 's';
constexpr char kUnsupported = 'u';
constexpr char kFailure = 'f';

void tell(int pipe, char kind, const std::string& text) {
  const std::string line = fmt::format("{}{}\n", kind, text);
  const ssize_t count = ::write(pipe, line.data(), line.size());
  if (count != static_cast<ssize_t>(line.size())) ::_exit(1);
}

[[noreturn]] void runChild(int pipe, Engine& engine, const Place& place,
                           const std::function<void(const Run&)>& body) {
  try {
    engine.openSession(Sync::off).reset();  // loads what is loaded once
    body(Run(engine, place,
             [&](double seconds) { tell(pipe, kSeconds, fmt::format("{:.9f}", seconds)); }));
  } catch (const Unsupported& reason) {
    tell(pipe, kUnsupported, reason.what());
  } catch (const std::exception& failure) {
    tell(pipe, kFailure, failure.what());
  }
  ::_exit(0);
}

std::string readAll(int pipe) {
  std::string text;
  char buffer[4096];
  while (true) {
    const ssize_t count = ::read(pipe, buffer, sizeof buffer);
    if (count <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

Outcome parse(const std::string& text) {
  Outcome outcome;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = text.find('\n', begin);
    const std::string line = text.substr(begin + 1, end - begin - 1);
    if (text[begin] == kSeconds) outcome.seconds.push_back(std::stod(line));
    if (text[begin] == kUnsupported) outcome.unsupported = line;
    if (text[begin] == kFailure) outcome.failure = line;
    begin = end + 1;
  }
  return outcome;
}

std::string describeEnd(int status, std::chrono::seconds patience) {
  if (!WIFSIGNALED(status)) return {};
  if (WTERMSIG(status) != SIGALRM) return fmt::format("died: {}", strsignal(WTERMSIG(status)));
  return fmt::format("gave up after {} s", patience.count());
}

// What others left to write would be paid for by the next fsync.
void settle(const std::filesystem::path& directory) {
  const FileDescriptor open(directory.string(), O_RDONLY | O_DIRECTORY);
  require(::syncfs(open.number()) == 0, "syncfs failed");
}

void makeEmptyFile(const std::filesystem::path& path) {
  const FileDescriptor made(path.string(), O_WRONLY | O_CREAT);
}

}  // namespace

void Run::measure(const std::function<void()>& work) const {
  const auto began = std::chrono::steady_clock::now();
  work();
  report_(std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
}

std::string Run::kept(const std::string& name,
                      const std::function<void(const std::string& path)>& make) const {
  const std::filesystem::path ready = place_.kept / (name + ".ready");
  std::string path = (place_.kept / name).string();
  if (std::filesystem::exists(ready)) return path;
  const std::filesystem::path begun = place_.kept / (name + ".begun");
  if (std::filesystem::exists(begun)) throw Unsupported("could not make what it was to read");
  makeEmptyFile(begun);
  make(path);
  settle(place_.kept);
  makeEmptyFile(ready);
  return path;
}

Outcome runInChild(Engine& engine, const Place& place, const std::function<void(const Run&)>& body,
                   std::chrono::seconds patience) {
  std::filesystem::remove_all(place.fresh);
  std::filesystem::create_directory(place.fresh);
  settle(place.fresh);
  int ends[2];
  require(::pipe2(ends, O_CLOEXEC) == 0, "pipe failed");
  const pid_t child = ::fork();
  require(child >= 0, "fork failed");
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::alarm(static_cast<unsigned>(patience.count()));
    runChild(ends[1], engine, place, body);
  }
  ::close(ends[1]);
  Outcome outcome = parse(readAll(ends[0]));
  ::close(ends[0]);
  int status = 0;
  require(::waitpid(child, &status, 0) == child, "waitpid failed");
  const std::string end = describeEnd(status, patience);
  if (end.empty()) return outcome;
  (WTERMSIG(status) == SIGALRM ? outcome.unsupported : outcome.failure) = end;
  return outcome;
}

}  // namespace bench
