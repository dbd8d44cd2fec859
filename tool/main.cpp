// The command hxcrate: what its words mean.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <functional>
#include <new>
#include <string>

#include "list.h"
#include "output.h"
#include "pack.h"
#include "report.h"
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

  CLI::App app_{"Keeps trees of named byte streams in single files.", "hxcrate"};
  tool::PackOptions pack_;
  tool::UnpackOptions unpack_;
  tool::ListOptions list_;
  tool::ListOptions cat_;
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
