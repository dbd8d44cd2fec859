// The command hxcrate.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "command_line.h"

namespace {

// A standard stream that the caller closed would be the next file to be opened, and be taken for
// output. Each is opened for what it is not for, so that using it still fails.
void occupyStandardStreams() {
  while (true) {
    const bool hasInput = ::fcntl(STDIN_FILENO, F_GETFD) >= 0;
    const int opened = ::open("/dev/null", hasInput ? O_RDONLY : O_WRONLY);
    if (opened > STDERR_FILENO) ::close(opened);
    if (opened > STDERR_FILENO || opened < 0) return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  occupyStandardStreams();
  for (const int failingWrite : {SIGPIPE, SIGXFSZ})
    std::signal(failingWrite, SIG_IGN);
  return static_cast<int>(tool::runCommand(argc, argv));
}
