// The command hxcrate: what its words mean.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <functional>
#include <new>
#include <string>

#include "check.h"
#include "list.h"
#include "map.h"
#include "output.h"
#include "pack.h"
#include "report.h"
#include "salvage.h"
#include "stat_store.h"
#include "unpack.h"

namespace {

using tool::ExitCode;

constexpr const char* kFooter =
    "Exit codes: 0 fine, 1 differs or damaged, 2 usage, 3 input or output,\n"
    "4 not openable, 5 done in part.";

// A standard stream that the caller closed would be the next file to be opened, and be taken for
// output. Reading-only, so that writing to it still fails.
void occupyStandardStreams() {
  while (true) {
    const int opened = ::open("/dev/null", O_RDONLY);
    if (opened > STDERR_FILENO) ::close(opened);
    if (opened > STDERR_FILENO || opened < 0) return;
  }
}

// The command line: the options of every subcommand, and what the chosen one does.
class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "hxcrate " + std::string(hxcrate::version()));
    app_.footer(kFooter);
    addPack();
    addUnpack();
    addLs();
    addCat();
    addStat();
    addCheck();
    addMap();
    addSalvage();
  }

  ExitCode run(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
      return print(app_.help());
    } catch (const CLI::CallForVersion& version) {
      return print(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
      tool::complain("", "", error.what());
      return ExitCode::usage;
    }
    return command_();
  }

 private:
  static ExitCode print(const std::string& text) {
    tool::Output output;
    output.write(text);
    output.finish();
    return ExitCode::fine;
  }

  CLI::App* add(const char* name, const char* meaning, std::function<ExitCode()> command) {
    CLI::App* subcommand = app_.add_subcommand(name, meaning);
    subcommand->callback([this, command = std::move(command)] { command_ = command; });
    return subcommand;
  }

  void addPack() {
    CLI::App* words = add("pack", "Pack the tree below DIR into the new file STORE", [this] {
      tool::pack(pack_);
      return ExitCode::fine;
    });
    words->add_option("STORE", pack_.store, "the store file to make")->required();
    words->add_option("DIR", pack_.directory, "the directory to pack")->required();
    words->add_flag("--replace", pack_.replace, "replace an existing STORE, once all is packed");
    words->add_flag("--in-memory", pack_.inMemory, "build it in memory and write it in one piece");
    words->add_option("--page-size", pack_.pageSize, "bytes of a page, 4096 unless given")
        ->check(CLI::Range(1, 2147483647));
  }

  void addUnpack() {
    CLI::App* words = add("unpack", "Unpack STORE into the directory DIR, made if it is missing",
                          [this] { return tool::unpack(unpack_); });
    words->add_option("STORE", unpack_.store, "the store file")->required();
    words->add_option("DIR", unpack_.directory, "the directory")->required();
    words->add_flag("--overwrite", unpack_.overwrite, "replace existing files");
  }

  void addLs() {
    CLI::App* words =
        add("ls", "List the members of a store", [this] { return tool::list(list_); });
    words->add_option("STORE", list_.store, "the store file")->required();
    words->add_option("PATH", list_.path, "a member of it, as a/b/c");
    words->add_flag("-l", list_.withSizes, "with the sizes of items, in bytes");
    words->add_flag("-R", list_.recursive, "with all that nested stores hold");
  }

  void addCat() {
    CLI::App* words = add("cat", "Print the bytes of an item",
                          [this] { return tool::printItem(cat_.store, cat_.path); });
    words->add_option("STORE", cat_.store, "the store file")->required();
    words->add_option("PATH", cat_.path, "the item, as a/b/c")->required();
  }

  void addStat() {
    CLI::App* words = add("stat", "Say what is in a store, in numbers",
                          [this] { return tool::statStore(stat_); });
    words->add_option("STORE", stat_.store, "the store file")->required();
    words->add_flag("--json", stat_.asJson, "print a JSON object");
  }

  void addCheck() {
    CLI::App* words =
        add("check", "Look for damage in a store", [this] { return tool::check(check_); });
    words->add_option("STORE", check_.store, "the store file")->required();
    words->add_flag("--quick", check_.quick, "the directory only, not the items' pages");
    words->add_flag("--json", check_.asJson, "print a JSON object");
    words->footer(
        "Prints OFFSET PLACE: SEVERITY: REASON, a line each. An error is damage; a warning is "
        "what\n"
        "no writer leaves and no reader needs; a note is unusual, not wrong. The exit code is 1\n"
        "after an error only.");
  }

  void addMap() {
    CLI::App* words =
        add("map", "Show who owns every byte of a store", [this] { return tool::map(map_); });
    words->add_option("STORE", map_.store, "the store file")->required();
    CLI::Option* svg =
        words->add_option("--svg", map_.svg, "draw it into the new file FILE; -: standard output");
    words->add_flag("--json", map_.asJson, "print a JSON object")->excludes(svg);
  }

  void addSalvage() {
    CLI::App* words =
        add("salvage", "Save what can be read of a damaged STORE into the new file NEW",
            [this] { return tool::salvage(salvage_); });
    words->add_option("STORE", salvage_.store, "the damaged store file")->required();
    words->add_option("NEW", salvage_.target, "the store file to make")->required();
    words->add_option("--encoding", salvage_.encoding,
                      "its encoding, such as hxmok1/le/utf-8, if its header does not tell");
    words
        ->add_option("--page-size", salvage_.pageSize,
                     "bytes of a page, if its header does not tell")
        ->check(CLI::Range(1, 2147483647));
    words->footer(
        "Prints what was lost, a line each. What no link leads to any more comes into the store\n"
        "lost+found of NEW: members by their names, pages of unknown members as item-at-OFFSET.");
  }

  CLI::App app_{"Keeps trees of named byte streams in single files.", "hxcrate"};
  tool::PackOptions pack_;
  tool::UnpackOptions unpack_;
  tool::ListOptions list_;
  tool::ListOptions cat_;
  tool::StatOptions stat_;
  tool::CheckOptions check_;
  tool::MapOptions map_;
  tool::SalvageOptions salvage_;
  std::function<ExitCode()> command_;
};

ExitCode run(int argc, char** argv) {
  try {
    return CommandLine().run(argc, argv);
  } catch (const tool::Failure& failure) {
    failure.print();
    return failure.code();
  } catch (const hxcrate::Error& error) {
    tool::complain(error);
    return tool::exitCodeOf(error);
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
