// The command hxcrate.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "command_line.h"
#include "commands.h"
#include "interruption.h"
#include "report.h"

namespace {

using tool::ExitCode;

constexpr void (*kCommands[])(tool::CommandLine&) = {
    tool::addPack,  tool::addUnpack,  tool::addLs,      tool::addTree, tool::addCat,
    tool::addPut,   tool::addMkstore, tool::addCopy,    tool::addDiff, tool::addStat,
    tool::addCheck, tool::addMap,     tool::addSalvage,
};

// A standard stream that the caller closed would be the next file to be opened, and be taken for
// output. Reading-only, so that writing to it still fails.
void occupyStandardStreams() {
  while (true) {
    const int opened = ::open("/dev/null", O_RDONLY);
    if (opened > STDERR_FILENO) ::close(opened);
    if (opened > STDERR_FILENO || opened < 0) return;
  }
}

ExitCode run(int argc, char** argv) {
  try {
    tool::CommandLine line;
    for (const auto add : kCommands)
      add(line);
    return line.run(argc, argv);
  } catch (const tool::Failure& failure) {
    failure.print();
    return failure.code();
  } catch (const hxcrate::Error& error) {
    tool::complain(error);
    return tool::exitCodeOf(error);
  } catch (const tool::Interrupted& interrupted) {
    tool::endBySignal(interrupted.signal());
  } catch (const std::exception& error) {
    tool::complain("", "", error.what());
    return ExitCode::inputOutput;
  }
}

}  // namespace

int main(int argc, char** argv) {
  occupyStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  return static_cast<int>(run(argc, argv));
}
