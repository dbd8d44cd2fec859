// hxcrate put and hxcrate mkstore: what adds to a store.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/new_store.h"
#include "tool/files/write_limits.h"
#include "tool/trees/item_input.h"

namespace tool {

namespace {

struct PutOptions {
  std::string store;
  std::string path;
  std::string file = "-";
  bool withParents = false;
  bool append = false;
  std::int64_t wait = 0;  // seconds
  bool dryRun = false;

  hxcrate::Parents parents() const {
    return withParents ? hxcrate::Parents::create : hxcrate::Parents::mustExist;
  }
};

// In bytes; nothing when there is no such file.
std::optional<off_t> sizeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return status.st_size;
  if (errno == ENOENT) return std::nullopt;
  throw systemFailure(path, "inspect");
}

// Throws what keeps a missing store from being made, unless somebody else has made it by now.
void refuseUnmakable(const std::string& store) {
  try {
    static_cast<void>(NewStore(store));
  } catch (const Failure&) {
    if (!sizeOf(store)) throw;
  }
}

// The folder in which the store and its journal lie, behind links.
Descriptor openFolderOf(const std::string& store) {
  std::error_code dangling;
  const std::string target = std::filesystem::canonical(store, dangling);
  return locateFile(dangling ? store : target).directory;
}

void requireUpdatable(const std::string& store) {
  if (::faccessat(AT_FDCWD, store.c_str(), W_OK, AT_EACCESS) != 0) {
    throw systemFailure(store, "open for writing");
  }
  requireWritable(openFolderOf(store), store + "-journal");
}

// Throws why there is no place for a new member `path`, if it is for what lies on the way.
void explainPlace(const hxcrate::Store& store, const std::string& path) {
  for (auto slash = path.find('/'); slash != path.npos; slash = path.find('/', slash + 1)) {
    const std::string outer = path.substr(0, slash);
    const auto refuse = [&](const char* reason) {
      throw Failure(ExitCode::notOpenable, store.path(), outer, reason);
    };
    if (!store.exists(outer)) refuse("no such store; -p makes it");
    if (store.stat(outer).kind == hxcrate::MemberKind::item) refuse("is an item");
  }
}

// Throws the error in words that help, where there are any.
void explain(const hxcrate::Error& error, const hxcrate::Store& store, const PutOptions& options) {
  const hxcrate::Errc code = error.errc();
  if (code == hxcrate::Errc::notFound || code == hxcrate::Errc::isAnItem) {
    explainPlace(store, options.path);
  }
  if (code != hxcrate::Errc::exists || store.stat(options.path).kind != hxcrate::MemberKind::item)
    return;
  throw Failure(ExitCode::notOpenable, options.store, options.path,
                "exists already; --append adds to it");
}

void requireItemPath(const PutOptions& options) {
  if (!options.path.ends_with('/')) return;
  throw Failure(ExitCode::notOpenable, options.store, options.path,
                "no item's name ends in a slash; mkstore makes stores");
}

using Change = std::function<void(hxcrate::Store&)>;

// Throws what the change would be refused for, so that it is known before any input is read: makes
// it, or as much as can be made without the `bytes` of the input, and gives it up.
void rehearse(const PutOptions& options, std::int64_t bytes, const Change& make) {
  requireFilePath(options.store);
  const std::optional<off_t> size = sizeOf(options.store);
  size ? requireUpdatable(options.store) : refuseUnmakable(options.store);
  requireRoom(openFolderOf(options.store), bytes, options.store);
  hxcrate::Session session(waitingFor(options.wait));
  hxcrate::Store store = size.value_or(0) == 0 ? session.createInMemory(options.store)
                                               : session.open(options.store, hxcrate::Mode::update);
  try {
    make(store);
  } catch (const hxcrate::Error& error) {
    explain(error, store, options);
    throw;
  }
  store.abandon();
}

void updateStore(const PutOptions& options, const Change& fill) {
  hxcrate::Session session(waitingFor(options.wait));
  hxcrate::Store store = session.open(options.store, hxcrate::Mode::openOrCreate);
  fill(store);  // what it throws undoes the update
  store.close();
}

// All or nothing, be it an existing store or one that is made for this.
void change(const PutOptions& options, const Change& fill) {
  if (sizeOf(options.store)) return updateStore(options, fill);
  try {
    NewStore(options.store).make(SizeForecast(), {}, fill);
    complain(options.store, "", "a new store was made");
  } catch (const Failure&) {
    if (!sizeOf(options.store)) throw;
    updateStore(options, fill);  // somebody else was quicker
  }
}

void writeItem(hxcrate::Writer writer, const ItemInput& input) {
  input.rewind();
  Progress progress("writing");
  progress.expect(input.size(), 1);
  const std::int64_t moved = BytePump(&progress).move(
      input.size(), takeFrom(input.descriptor(), input.name()), giveTo(writer));
  if (moved != input.size()) {
    throw Failure(ExitCode::inputOutput, input.name(), "", "it became shorter while it was read");
  }
  writer.close();
}

hxcrate::Writer openItem(const PutOptions& options, hxcrate::Store& store) {
  return options.append ? store.append(options.path, options.parents())
                        : store.create(options.path, options.parents());
}

ExitCode put(const PutOptions& options) {
  requireItemPath(options);
  const std::int64_t bytes = ItemInput::requireReadable(options.file);
  rehearse(options, bytes, [&](hxcrate::Store& store) {
    if (openItem(options, store).size() <= hxcrate::kItemCapacity - bytes) return;
    throw hxcrate::Error(hxcrate::Errc::itemFull, options.store, options.path);
  });
  if (options.dryRun) {
    complain(options.store, options.path, "would be written");
    return ExitCode::fine;
  }
  const ItemInput input(options.file, options.store);
  change(options, [&](hxcrate::Store& store) { writeItem(openItem(options, store), input); });
  return ExitCode::fine;
}

ExitCode makeStore(const PutOptions& options) {
  const Change make = [&](hxcrate::Store& store) {
    if (options.withParents)
      return store.openOrCreateStore(options.path, options.parents()).close();
    store.createStore(options.path).close();
  };
  rehearse(options, 0, make);
  if (options.dryRun) {
    complain(options.store, options.path, "would be made");
    return ExitCode::fine;
  }
  change(options, make);
  return ExitCode::fine;
}

constexpr const char* kStoreMeaning = "the store file, made if missing";

}  // namespace

void addPut(CommandLine& line) {
  const auto options = std::make_shared<PutOptions>();
  CLI::App& words = line.add("put", "Write FILE, or standard input, into STORE as the item PATH",
                             "  hxcrate put docs.st guide/intro.txt intro.txt\n"
                             "  date | hxcrate put -p --append log.st 2026/visits",
                             [options] { return put(*options); });
  addFile(words, "STORE", options->store, kStoreMeaning);
  words.add_option("PATH", options->path, "the item, as a/b/c")->required();
  words.add_option("FILE", options->file, "the file; \"-\" or none: standard input");
  words.add_flag("-p", options->withParents, "make the stores on the way to PATH");
  words.add_flag("--append", options->append, "at the end of the item when there is one");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

void addMkstore(CommandLine& line) {
  const auto options = std::make_shared<PutOptions>();
  CLI::App& words = line.add("mkstore", "Make the store PATH in STORE",
                             "  hxcrate mkstore -p docs.st archive/2026",
                             [options] { return makeStore(*options); });
  addFile(words, "STORE", options->store, kStoreMeaning);
  addMemberPath(words, options->path, "the new store, as a/b/c")->required();
  words.add_flag("-p", options->withParents,
                 "make the stores on the way too; fine if PATH is there already");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
