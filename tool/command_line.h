// The command line: subcommands with their words and options, and which of them was asked for.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "hxcrate/crate.hpp"
#include "tool/report/report.h"
#include "tool/trees/selection.h"

namespace tool {

class CommandLine {
 public:
  CommandLine();

  // The heading of the subcommands that are added from now on.
  void beginGroup(const char* name) { group_ = name; }

  // A subcommand. `examples` are lines of shell for its help; `command` does it, after its options
  // were read, and keeps alive whatever they were read into.
  CLI::App& add(const char* name, const char* meaning, const char* examples,
                std::function<ExitCode()> command);

  // Reads the words and does what they say. Throws what the command throws.
  ExitCode run(int argc, char** argv);

  // The first file that the words name, once they were read.
  std::string file() const;

 private:
  CLI::App app_;
  hxcrate::RemoteOptions remote_;
  std::int64_t patience_ = 0;
  std::string group_;
  std::function<ExitCode()> command_;
};

// Puts sentences before the examples of a command's help; `text` has its line breaks.
void explain(CLI::App& words, const char* text);

// Words that several subcommands have.
void addStore(CLI::App& words, std::string& path);
// A file or directory that can't be a standard stream.
void addFile(CLI::App& words, const char* name, std::string& path, const char* meaning);
// "/a/b/" is taken for "a/b", and "/" for the store as a whole.
CLI::Option* addMemberPath(CLI::App& words, std::string& path, const char* meaning);
CLI::Option* addMemberPaths(CLI::App& words, std::vector<std::string>& paths, const char* meaning);
void addPageSize(CLI::App& words, std::int32_t& pageSize, const char* meaning);
// The identity of an encoding, one of those that files can have.
void addEncoding(CLI::App& words, std::string& encoding, const char* meaning);
// A number of bytes or things, called N.
void addCount(CLI::App& words, const char* name, std::int64_t& count, const char* meaning);
// How many seconds to wait for a store that somebody else has open, and a session that does.
void addWait(CLI::App& words, std::int64_t& seconds);
hxcrate::SessionOptions waitingFor(std::int64_t seconds);
// When to use colours, as Output takes it.
void addColour(CLI::App& words, std::string& colour);
void addDryRun(CLI::App& words, bool& dryRun);
// The globs of what is meant and what is not.
void addSelection(CLI::App& words, SelectionOptions& selection);

// The subcommands, each of a file of its own.
void addPack(CommandLine& line);
void addUnpack(CommandLine& line);
void addImport(CommandLine& line);
void addExport(CommandLine& line);
void addLs(CommandLine& line);
void addTree(CommandLine& line);
void addCat(CommandLine& line);
void addSum(CommandLine& line);
void addPut(CommandLine& line);
void addMkstore(CommandLine& line);
void addCopy(CommandLine& line);
void addDiff(CommandLine& line);
void addStat(CommandLine& line);
void addCheck(CommandLine& line);
void addMap(CommandLine& line);
void addSalvage(CommandLine& line);

// The command as a function: does what the words say, as the program of that name would. What went
// wrong is told on standard error; after a signal it ends the process. Not for two threads at once:
// signals, progress and standard streams are the process's.
ExitCode runCommand(int argc, char** argv);

}  // namespace tool
