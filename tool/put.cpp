// hxcrate put and hxcrate mkstore: what adds to a store.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "byte_pump.h"
#include "command_line.h"
#include "item_input.h"
#include "new_store.h"
#include "store_walk.h"

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

  hxcrate::SessionOptions session() const { return {.lockWait = std::chrono::seconds(wait)}; }
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

// Throws what the change would, so that it is known before any input is read. `mayExist`: a member
// of that kind.
void rehearse(const PutOptions& options, hxcrate::MemberKind kind, bool mayExist) {
  const auto refuse = [&](const std::string& place, const char* reason) {
    throw Failure(ExitCode::notOpenable, options.store, place, reason);
  };
  const std::size_t slash = options.path.rfind('/');
  const std::string parent = options.path.substr(0, slash == std::string::npos ? 0 : slash);
  const bool needsParent = !parent.empty() && !options.withParents;
  const char* const noParent = "no such store; -p makes it";
  const std::optional<off_t> size = sizeOf(options.store);
  if (!size) refuseUnmakable(options.store);
  if (size.value_or(0) == 0) return needsParent ? refuse(parent, noParent) : void();
  hxcrate::Session session(options.session());
  const hxcrate::Store store = session.open(options.store);
  const auto parentKind = parent.empty() ? hxcrate::MemberKind::store : kindOf(store, parent);
  if (parentKind == hxcrate::MemberKind::item) refuse(parent, "is an item");
  if (needsParent && !parentKind) refuse(parent, noParent);
  const auto existing = kindOf(store, options.path);
  if (existing && (*existing != kind || !mayExist)) {
    const bool helps = *existing == hxcrate::MemberKind::item && kind == *existing;
    refuse(options.path, helps ? "exists already; --append adds to it" : "exists already");
  }
}

void updateStore(const PutOptions& options, const NewStore::Fill& fill) {
  hxcrate::Session session(options.session());
  hxcrate::Store store = session.open(options.store, hxcrate::Mode::openOrCreate);
  fill(store);  // what it throws undoes the update
  store.close();
}

// All or nothing, be it an existing store or one that is made for this.
void change(const PutOptions& options, const NewStore::Fill& fill) {
  if (sizeOf(options.store)) return updateStore(options, fill);
  try {
    NewStore(options.store).make(SizeForecast(), {}, fill);
    complain(options.store, "", "a new store was made");
  } catch (const Failure&) {
    if (!sizeOf(options.store)) throw;
    updateStore(options, fill);  // somebody else was quicker
  }
}

void writeItem(const PutOptions& options, const ItemInput& input, hxcrate::Store& store) {
  hxcrate::Writer writer = options.append ? store.append(options.path, options.parents())
                                          : store.create(options.path, options.parents());
  input.rewind();
  Progress progress("writing");
  progress.expect(input.size());
  const std::int64_t moved = BytePump(&progress).move(
      input.size(), takeFrom(input.descriptor(), input.name()), giveTo(writer));
  if (moved != input.size()) {
    throw Failure(ExitCode::inputOutput, input.name(), "", "it became shorter while it was read");
  }
  writer.close();
}

// As far as it can be known without reading it.
void requireReadable(const std::string& path) {
  struct stat status {};
  if (path == "-") return;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen() || ::fstat(file.number(), &status) != 0) throw systemFailure(path, "open");
  errno = EISDIR;
  if (S_ISDIR(status.st_mode)) throw systemFailure(path, "read");
  if (status.st_size <= hxcrate::kItemCapacity) return;
  throw Failure(ExitCode::inputOutput, path, "", "more than the 2147483647 bytes of an item");
}

ExitCode put(const PutOptions& options) {
  rehearse(options, hxcrate::MemberKind::item, options.append);
  if (options.dryRun) {
    requireReadable(options.file);
    complain(options.store, options.path, "would be written");
    return ExitCode::fine;
  }
  const ItemInput input(options.file, options.store);
  change(options, [&](hxcrate::Store& store) { writeItem(options, input, store); });
  return ExitCode::fine;
}

ExitCode makeStore(const PutOptions& options) {
  rehearse(options, hxcrate::MemberKind::store, options.withParents);
  if (options.dryRun) {
    complain(options.store, options.path, "would be made");
    return ExitCode::fine;
  }
  change(options, [&](hxcrate::Store& store) {
    store.openOrCreateStore(options.path, options.parents()).close();
  });
  return ExitCode::fine;
}

void addPlace(CLI::App& words, PutOptions& options, const char* meaning) {
  words.add_option("STORE", options.store, "the store file, made if missing")->required();
  addMemberPath(words, options.path, meaning)->required();
}

}  // namespace

void addPut(CommandLine& line) {
  const auto options = std::make_shared<PutOptions>();
  CLI::App& words = line.add("put", "Write FILE, or standard input, into STORE as the item PATH",
                             "  hxcrate put docs.st guide/intro.txt intro.txt\n"
                             "  date | hxcrate put -p --append log.st 2026/visits",
                             [options] { return put(*options); });
  addPlace(words, *options, "the item, as a/b/c");
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
  addPlace(words, *options, "the new store, as a/b/c");
  words.add_flag("-p", options->withParents,
                 "make the stores on the way too; fine if PATH is there already");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
