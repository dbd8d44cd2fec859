#include "command_line.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "hxcrate/inspect.hpp"
#include "tool/commands/further_command.h"
#include "tool/files/interruption.h"
#include "tool/files/output.h"

namespace tool {

namespace {

constexpr const char* kFooter =
    "hxcrate COMMAND --help tells a command's options.\n"
    "PATH names a member inside a store, as a/b/c.\n"
    "hxcrate mount, of the package hxcrate-mount, shows a store as a folder.\n\n"
    "Exit codes:\n"
    "  0  fine\n"
    "  1  stores differ, or a store is damaged\n"
    "  2  usage\n"
    "  3  reading or writing files or standard output failed\n"
    "  4  the store, or the place in it, can't be opened\n"
    "  5  done in part";

constexpr int kOptionColumn = 24;

ExitCode print(const std::string& text) {
  Output output;
  output.write(text);
  output.finish();
  return ExitCode::fine;
}

ExitCode refuse(const std::string& reason, const std::string& command) {
  complain("", "", reason + " (see hxcrate " + command + "--help)");
  return ExitCode::usage;
}

std::string trimPath(const std::string& path) {
  const std::size_t first = path.find_first_not_of('/');
  if (first == std::string::npos) return "";
  return path.substr(first, path.find_last_not_of('/') + 1 - first);
}

std::string refuseStream(const std::string& path) {
  return path == "-" ? "no standard stream can be this; ./- is the file of that name" : "";
}

// In decimal alone, whatever it begins with; the parser's own numbers may be octal or too large.
CLI::Validator number(std::int64_t least, std::int64_t most) {
  const std::string range = fmt::format("{} to {}", least, most);
  const auto normalize = [=](std::string& text) -> std::string {
    std::int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end || value < least || value > most) {
      return text + " is no number from " + range;
    }
    text = fmt::to_string(value);
    return "";
  };
  return {normalize, ""};
}

using Adder = void (*)(CommandLine&);

struct Group {
  const char* heading;
  std::vector<Adder> adders;
};

// As the help shows them.
void addCommands(CommandLine& line) {
  const Group groups[] = {
      {"Trees of files", {addPack, addUnpack, addImport, addExport}},
      {"What is in a store", {addLs, addTree, addCat, addSum, addDiff}},
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

CommandLine::CommandLine()
    : app_("Keeps trees of named byte streams, items in stores, in single files.", "hxcrate") {
  app_.require_subcommand(0, 1);  // what comes behind it is no command, whatever it is called
  app_.set_version_flag("--version", "hxcrate " + std::string(hxcrate::version()));
  app_.footer(kFooter);
  app_.add_flag("!--no-cache", remote_.useCache, "of a URL: keep nothing of what is read");
  addCount(app_, "--max-transfer", remote_.maxBytes, "of a URL: receive at most so many bytes");
  addCount(app_, "--patience", patience_,
           "of a URL: seconds to wait for a server that sends nothing");
  app_.get_formatter()->column_width(kOptionColumn);
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_.get_formatter()->label("Positionals", "Arguments");
  for (const char* noise : {"TEXT", "INT", "UINT", "REQUIRED"})
    app_.get_formatter()->label(noise, "");
}

CLI::App& CommandLine::add(const char* name, const char* meaning, const char* examples,
                           std::function<ExitCode()> command) {
  CLI::App* words = app_.add_subcommand(name, meaning);
  words->group(group_);
  words->fallthrough();
  words->footer("Example:\n" + std::string(examples));
  words->callback([this, command = std::move(command)] { command_ = command; });
  return *words;
}

ExitCode CommandLine::run(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "";
  const bool isOption = name.starts_with("-");
  const auto isNamed = [&](const CLI::App* command) { return command->get_name() == name; };
  if (name.empty()) return refuse("no command given", "");
  if (!isOption && app_.get_subcommands(isNamed).empty()) {
    runFurtherCommand(name, argv + 1);
    return refuse("no command is called " + name + hintAtPackage(name), "");
  }
  try {
    app_.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return print(app_.help());
  } catch (const CLI::CallForVersion& version) {
    return print(std::string(version.what()) + "\n");
  } catch (const CLI::ExtrasError&) {
    std::string unexpected;
    for (const std::string& word : app_.remaining(true))
      unexpected += " " + word;
    return refuse("unexpected:" + unexpected, name + " ");
  } catch (const CLI::ParseError& error) {
    return refuse(error.what(), isOption ? "" : name + " ");
  }
  if (patience_ != 0) remote_.patience = std::chrono::seconds(patience_);
  remote_.goesOn = [] { return pendingSignal() == 0; };
  hxcrate::setRemoteOptions(remote_);
  return command_ ? command_() : refuse("no command given", "");
}

std::string CommandLine::file() const {
  for (const CLI::App* words : app_.get_subcommands()) {
    for (const CLI::Option* word : words->get_options())
      if (word->get_positional() && word->count() > 0) return word->results().front();
  }
  return "";
}

void explain(CLI::App& words, const char* text) {
  words.footer(std::string(text) + "\n\n" + words.get_footer());
}

void addStore(CLI::App& words, std::string& path) {
  addFile(words, "STORE", path, "the store file");
}

void addFile(CLI::App& words, const char* name, std::string& path, const char* meaning) {
  words.add_option(name, path, meaning)->required()->check(CLI::Validator(refuseStream, ""));
}

CLI::Option* addMemberPath(CLI::App& words, std::string& path, const char* meaning) {
  return words.add_option("PATH", path, meaning)->transform(trimPath);
}

CLI::Option* addMemberPaths(CLI::App& words, std::vector<std::string>& paths, const char* meaning) {
  return words.add_option("PATH", paths, meaning)->transform(trimPath);
}

void addPageSize(CLI::App& words, std::int32_t& pageSize, const char* meaning) {
  words.add_option("--page-size", pageSize, meaning)
      ->transform(number(1, std::numeric_limits<std::int32_t>::max()))
      ->type_name("BYTES");
}

void addEncoding(CLI::App& words, std::string& encoding, const char* meaning) {
  const auto isKnown = [](const std::string& id) {
    return hxcrate::isBigEndian(id)
               ? ""
               : "no encoding " + id + "; known are " + hxcrate::listEncodings();
  };
  words.add_option("--encoding", encoding, meaning)->check(isKnown)->type_name("ID");
}

void addCount(CLI::App& words, const char* name, std::int64_t& count, const char* meaning) {
  words.add_option(name, count, meaning)
      ->transform(number(0, std::numeric_limits<std::int64_t>::max()))
      ->type_name("N");
}

void addWait(CLI::App& words, std::int64_t& seconds) {
  constexpr std::int64_t kMost = 1'000'000'000;
  words.add_option("--wait", seconds, "wait that long at most while somebody else has STORE open")
      ->transform(number(0, kMost))
      ->type_name("SECONDS");
}

hxcrate::SessionOptions waitingFor(std::int64_t seconds) {
  return {.lockWait = std::chrono::seconds(seconds)};
}

void addColour(CLI::App& words, std::string& colour) {
  const auto isKnown = [](const std::string& when) {
    return when == "auto" || when == "always" || when == "never"
               ? ""
               : "auto, always or never, not " + when;
  };
  words.add_option("--color", colour, "use colours: auto, always or never")
      ->check(CLI::Validator(isKnown, ""))
      ->type_name("WHEN");
}

void addDryRun(CLI::App& words, bool& dryRun) {
  words.add_flag("--dry-run", dryRun, "write nothing, say what would be done");
}

void addSelection(CLI::App& words, SelectionOptions& selection) {
  const auto add = [&](const char* name, std::vector<std::string>& values, const char* value,
                       const char* meaning) {
    words.add_option(name, values, meaning)->type_name(value)->allow_extra_args(false);
  };
  add("--include", selection.includes, "GLOB",
      "only paths that match from their start, with all they hold");
  add("--exclude", selection.excludes, "GLOB",
      "not what matches from any of its names on, with all it holds; * matches \"/\" too");
  add("--include-from", selection.includesFrom, "FILE", "the same, of globs in FILE, one a line");
  add("--exclude-from", selection.excludesFrom, "FILE", "the same");
}

ExitCode runCommand(int argc, char** argv) {
  std::optional<CommandLine> line;
  const auto fail = [&](const std::string& reason) {
    complain(line ? line->file() : "", "", reason);
    return ExitCode::inputOutput;
  };
  try {
    addCommands(line.emplace());
    return line->run(argc, argv);
  } catch (const Failure& failure) {
    failure.print();
    return failure.code();
  } catch (const hxcrate::Error& error) {
    if (const int signal = pendingSignal(); signal != 0) endBySignal(signal);
    complain(error);
    return exitCodeOf(error);
  } catch (const Interrupted& interrupted) {
    endBySignal(interrupted.signal());
  } catch (const std::bad_alloc&) {
    return fail("the memory that this takes can't be had");
  } catch (const std::exception& error) {
    return fail(std::string("the command failed: ") + error.what());
  }
}

}  // namespace tool
