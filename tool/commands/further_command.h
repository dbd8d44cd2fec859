// Commands that are programs of their own, which may be installed or not.
#pragma once

#include <string>

namespace tool {

// Goes on as the program hxcrate-NAME that lies beside this one, or is found on PATH; the first of
// `words` becomes its name, and a null ends them. Returns when there is no such program.
void runFurtherCommand(const std::string& name, char** words);

// What to say behind the name of a command that is not there: the package that has it, if one does.
std::string hintAtPackage(const std::string& name);

}  // namespace tool
