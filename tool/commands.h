// The subcommands, each registered by a function of its own file.
#pragma once

namespace tool {

class CommandLine;

void addPack(CommandLine& line);
void addUnpack(CommandLine& line);
void addLs(CommandLine& line);
void addTree(CommandLine& line);
void addCat(CommandLine& line);
void addPut(CommandLine& line);
void addMkstore(CommandLine& line);
void addCopy(CommandLine& line);
void addDiff(CommandLine& line);
void addStat(CommandLine& line);
void addCheck(CommandLine& line);
void addMap(CommandLine& line);
void addSalvage(CommandLine& line);

}  // namespace tool
