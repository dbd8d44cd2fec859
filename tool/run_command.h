// The command as a function.
#pragma once

#include "report.h"

namespace tool {

// Does what the words say, as the program of that name would. What went wrong is told on standard
// error; after a signal it ends the process. Not for two threads at once: signals, progress and
// standard streams are the process's.
ExitCode runCommand(int argc, char** argv);

}  // namespace tool
