#include "run_command.h"

#include <exception>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "interruption.h"

namespace tool {

namespace {

using Adder = void (*)(CommandLine&);

struct Group {
  const char* heading;
  std::vector<Adder> adders;
};

// As the help shows them.
void addCommands(CommandLine& line) {
  const Group groups[] = {
      {"Trees of files", {addPack, addUnpack}},
      {"What is in a store", {addLs, addTree, addCat, addDiff}},
      {"Making and adding", {addPut, addMkstore, addCopy}},
      {"The file itself", {addStat, addMap, addCheck, addSalvage}},
  };
  for (const Group& group : groups) {
    line.beginGroup(group.heading);
    for (const Adder add : group.adders)
      add(line);
  }
}

}  // namespace

ExitCode runCommand(int argc, char** argv) {
  try {
    CommandLine line;
    addCommands(line);
    return line.run(argc, argv);
  } catch (const Failure& failure) {
    failure.print();
    return failure.code();
  } catch (const hxcrate::Error& error) {
    complain(error);
    return exitCodeOf(error);
  } catch (const Interrupted& interrupted) {
    endBySignal(interrupted.signal());
  } catch (const std::exception& error) {
    complain("", "", error.what());
    return ExitCode::inputOutput;
  }
}

}  // namespace tool
