// hxcrate unpack.

#include <memory>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/trees/unpacker.h"

namespace tool {

void addUnpack(CommandLine& line) {
  const auto options = std::make_shared<UnpackOptions>();
  CLI::App& words =
      line.add("unpack", "Unpack STORE, or PATHs of it, into the directory DIR, made if missing",
               "  hxcrate unpack docs.st copy\n"
               "  hxcrate unpack --overwrite docs.st copy guide/intro.txt images",
               [options] { return seeLostMembers(options->store, unpack(*options)); });
  addStore(words, options->store);
  addFile(words, "DIR", options->directory, "the directory");
  addMemberPaths(words, options->paths, "items, and stores with all they hold; all unless given");
  words.add_flag("-v", options->isTold, "print the path of each member");
  addCount(words, "--strip-components", options->stripped,
           "without so many names at the beginning of each path");
  words.add_flag("--no-attributes", options->restored.isOff,
                 "no modes, times and links, but the item .mtree that keeps them");
  words.add_flag("--same-owner", options->restored.sameOwner, "also owners and groups");
  words.add_flag("--set-id", options->restored.setId,
                 "also the bits that let a program run as its owner or group");
  words.add_flag("--overwrite", options->overwrite, "replace existing files");
  words.add_flag("--journals", options->withJournals, "also what passes for a store's journal");
  addCount(words, "--max-entries", options->maxEntries, "stop before more files and directories");
  addCount(words, "--max-bytes", options->maxBytes, "stop before more bytes in files");
  addSelection(words, options->selected);
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
