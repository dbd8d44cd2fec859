// Sends a whole store through a pipe to a child process, which opens it where it lies in memory.
// Neither of them touches a file.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <hxcrate/crate.hpp>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace {

[[noreturn]] void failSystem(const char* what) {
  throw std::system_error(errno, std::system_category(), what);
}

void sendAll(int pipe, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::write(pipe, bytes.data(), bytes.size());
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) failSystem("write");
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
}

std::vector<std::byte> receiveAll(int pipe) {
  std::vector<std::byte> bytes;
  for (;;) {
    constexpr std::size_t kStep = 65536;
    const std::size_t before = bytes.size();
    bytes.resize(before + kStep);
    const ssize_t received = ::read(pipe, bytes.data() + before, kStep);
    if (received < 0 && errno != EINTR) failSystem("read");
    bytes.resize(before + static_cast<std::size_t>(received > 0 ? received : 0));
    if (received == 0) return bytes;
  }
}

hxcrate::Blob makeReport() {
  hxcrate::Session session;
  hxcrate::Store store = session.createInMemory("report");
  store.create("summary").write("all is well\n");
  hxcrate::Writer samples = store.create("data/samples", hxcrate::Parents::create);
  for (int i = 0; i < 100000; ++i)
    samples.write(std::to_string(i) + "\n");
  samples.close();
  return store.makeBlob();  // needs neither the store nor the session any longer
}

void printReport(int pipe) {
  const std::vector<std::byte> blob = receiveAll(pipe);
  hxcrate::Session session;
  const hxcrate::Store store = session.openBlob(blob, "report");
  std::printf("received a store of %zu bytes\n", blob.size());
  std::printf("summary: %s", store.read("summary").readText().c_str());
  std::printf("samples: %lld bytes\n", static_cast<long long>(store.read("data/samples").size()));
}

int runChild(int pipe) try {
  printReport(pipe);
  return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
  std::fprintf(stderr, "child: %s\n", error.what());
  return EXIT_FAILURE;
}

}  // namespace

int main() try {
  int ends[2];
  if (::pipe(ends) != 0) failSystem("pipe");
  const pid_t child = ::fork();
  if (child < 0) failSystem("fork");
  if (child == 0) {
    ::close(ends[1]);
    ::_exit(runChild(ends[0]));
  }
  ::close(ends[0]);
  const hxcrate::Blob report = makeReport();
  sendAll(ends[1], report.bytes());
  ::close(ends[1]);
  int outcome = 0;
  if (::waitpid(child, &outcome, 0) < 0) failSystem("waitpid");
  return WIFEXITED(outcome) ? WEXITSTATUS(outcome) : EXIT_FAILURE;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return EXIT_FAILURE;
}
